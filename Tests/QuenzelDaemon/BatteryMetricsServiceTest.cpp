#include <filesystem>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "QuenzelDaemon/BatteryMetricsService.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"
#include "Storage/SharedSnapshotSidecarPermissions.hpp"
#include "Tests/Support/FakeShell.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using testing::FakeShell;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;
using Message = std::optional<std::string>;

class FakeTerminator final : public ProcessTerminating {
 public:
  explicit FakeTerminator(ProcessTerminationResult result = {}) : result_(std::move(result)) {}
  ProcessTerminationResult terminateProcess(std::int32_t) const override { return result_; }

 private:
  ProcessTerminationResult result_;
};

struct Outcome {
  bool success = false;
  Message message;
  std::vector<std::string> log;  ///< "LEVEL message"

  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* stream) {
  *stream << outcome.success << " / " << outcome.message.value_or("(none)");
  for (const std::string& line : outcome.log) *stream << "\n    " << line;
}

/// "[<time>] [INFO] [Daemon] text" becomes "INFO text".
std::vector<std::string> withoutTimeAndComponent(const std::string& written) {
  std::vector<std::string> lines;
  std::istringstream stream(written);
  for (std::string line; std::getline(stream, line);) {
    const std::size_t level = line.find("] [") + 3;
    const std::size_t component = line.find("] [Daemon] ", level);
    lines.push_back(line.substr(level, component - level) + " " + line.substr(component + 11));
  }
  return lines;
}

class BatteryMetricsServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { RuntimeLog::setMinimumLevel(RuntimeLogLevel::info); }

  /// Makes the request of a service that has just started, and gathers what it replies and logs.
  template <typename Request>
  Outcome outcomeOf(const ShellRunning& shell, const ProcessTerminating& terminator, Request request) {
    Outcome outcome;
    int replies = 0;
    ::testing::internal::CaptureStderr();
    BatteryMetricsService service(shell, terminator);
    request(service, [&](bool success, const Message& message) {
      ++replies;
      outcome.success = success;
      outcome.message = message;
    });
    outcome.log = withoutTimeAndComponent(::testing::internal::GetCapturedStderr());
    EXPECT_EQ(outcome.log.front(), "INFO BatteryMetricsService initialized.");
    outcome.log.erase(outcome.log.begin());
    EXPECT_EQ(replies, 1);
    return outcome;
  }

  TemporaryDirectory folder_;
  ScopedEnvironment environment_{
      {{"QZL_SHARED_DIRECTORY", folder_.path()}, {"QZL_LOG_DISABLED", std::nullopt}}};
};

TEST_F(BatteryMetricsServiceTest, SetsLowPowerModeAndReadsItBack) {
  const ShellResult done{};
  const auto prints = [](std::string text) { return ShellResult{0, std::move(text), ""}; };
  const std::string undecided =
      "Failed to launch command: Unable to determine lowpowermode state from pmset output.";
  const std::string applied = "INFO setLowPowerMode applied successfully.";
  struct Row {
    bool enabled;
    std::vector<FakeShell::Reply> replies;
    bool success;
    Message message;
    std::string log;
  };
  const Row rows[] = {
      {true, {done, prints("Currently in use:\n lowpowermode         1\n")}, true, {}, applied},
      {false, {done, prints(" sleep 1\r lowpowermode         0\r disksleep 10")}, true, {}, applied},
      {true, {done, prints("\t LowPowerMode \u00a0 1 \u2003\n")}, true, {}, applied},
      // The first line that decides wins; "2" and a word do not decide.
      {true,
       {done, prints("lowpowermode 2\nlowpowermode on\nlowpowermode 1\nlowpowermode 0")},
       true,
       {},
       applied},
      {true,
       {done, prints(" lowpowermode 0\n")},
       false,
       "pmset completed but lowpowermode remained 0",
       "ERROR setLowPowerMode verification failed: pmset completed but lowpowermode remained 0"},
      {false,
       {done, prints(" lowpowermode 1\n")},
       false,
       "pmset completed but lowpowermode remained 1",
       "ERROR setLowPowerMode verification failed: pmset completed but lowpowermode remained 1"},
      {true,
       {ShellResult{1, "out", ""}},
       false,
       "pmset returned status 1",
       "ERROR setLowPowerMode failed: pmset returned status 1"},
      {true,
       {ShellResult{1, "", "\n\r\n"}},
       false,
       "pmset returned status 1",
       "ERROR setLowPowerMode failed: pmset returned status 1"},
      {true, {ShellResult{64, "", "\nfoo\nbar"}}, false, "foo", "ERROR setLowPowerMode failed: foo"},
      // A line of blanks is not empty, and no line is trimmed.
      {true, {ShellResult{64, "", " \nfoo"}}, false, " ", "ERROR setLowPowerMode failed:  "},
      {true,
       {ShellRunnerError::failedToLaunch("gone")},
       false,
       "Failed to launch command: gone",
       "ERROR setLowPowerMode command error: Failed to launch command: gone"},
      {true,
       {done, ShellRunnerError::timedOut("/usr/bin/pmset -g", 4)},
       false,
       "Command timed out after 4.0s: /usr/bin/pmset -g",
       "ERROR setLowPowerMode command error: Command timed out after 4.0s: /usr/bin/pmset -g"},
      {true,
       {done, ShellResult{3, "lowpowermode 1", "no"}},
       false,
       "Command exited with status 3: no",
       "ERROR setLowPowerMode command error: Command exited with status 3: no"},
      {true, {done, prints("")}, false, undecided, "ERROR setLowPowerMode command error: " + undecided},
      {true,
       {done, prints("xlowpowermode 1\nlowpowermode")},
       false,
       undecided,
       "ERROR setLowPowerMode command error: " + undecided},
  };
  for (const Row& row : rows) {
    FakeShell shell;
    for (const FakeShell::Reply& reply : row.replies) shell.reply("/usr/bin/pmset", reply);
    const Outcome outcome = outcomeOf(shell, FakeTerminator(), [&](auto& service, const auto& reply) {
      service.setLowPowerMode(row.enabled, reply);
    });
    const char* request = row.enabled ? "INFO setLowPowerMode request received: enabled=true"
                                      : "INFO setLowPowerMode request received: enabled=false";
    EXPECT_EQ(outcome, (Outcome{row.success, row.message, {request, row.log}}));

    std::vector<FakeShell::Call> calls = {
        {"/usr/bin/pmset", {"-a", "lowpowermode", row.enabled ? "1" : "0"}}};
    if (row.replies.size() > 1) calls.push_back({"/usr/bin/pmset", {"-g"}});
    EXPECT_EQ(shell.calls(), calls) << row.log;
  }
}

TEST_F(BatteryMetricsServiceTest, RepliesWhatTheTerminatorSays) {
  const std::string request = "INFO terminateProcess request received: pid=42";
  const std::string succeeded = "INFO terminateProcess succeeded for pid=42";
  struct Row {
    ProcessTerminationResult result;
    std::string log;
  };
  const Row rows[] = {
      {ProcessTerminationResult::success(), succeeded},
      {ProcessTerminationResult::success("Process 42 required SIGKILL."), succeeded},
      {ProcessTerminationResult::failure("Invalid PID 42."),
       "ERROR terminateProcess failed for pid=42: Invalid PID 42."},
      {{false, std::nullopt}, "ERROR terminateProcess failed for pid=42: unknown"},
  };
  for (const Row& row : rows) {
    const Outcome outcome =
        outcomeOf(FakeShell(), FakeTerminator(row.result),
                  [](auto& service, const auto& reply) { service.terminateProcess(42, reply); });
    EXPECT_EQ(outcome, (Outcome{row.result.succeeded, row.result.message, {request, row.log}}));
  }
}

TEST_F(BatteryMetricsServiceTest, AnswersPingsAndEveryConnection) {
  const Outcome outcome = outcomeOf(FakeShell(), FakeTerminator(), [](auto& service, const auto& reply) {
    EXPECT_TRUE(service.shouldAcceptNewConnection());
    service.ping([&](bool ok) { reply(ok, std::nullopt); });
  });
  EXPECT_EQ(outcome, (Outcome{true, {}, {"INFO Accepted XPC connection.", "INFO ping received."}}));
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST_F(BatteryMetricsServiceTest, StartOpensTheSharedDatabaseToEveryone) {
  const std::string stranger = folder_.write("stranger", "secret");
  const std::string linked = folder_.write("linked", "secret");
  const std::string database = folder_.write("Quenzel/battery_history.sqlite", "");
  ::chmod((folder_ / "Quenzel").c_str(), 0700);
  for (const std::string& file : {stranger, linked, database}) ::chmod(file.c_str(), 0600);
  std::filesystem::create_symlink(stranger, database + "-wal");
  std::filesystem::create_hard_link(linked, database + "-shm");

  RuntimeLog::setMinimumLevel(RuntimeLogLevel::error);
  const FakeShell shell;
  const FakeTerminator terminator;
  const BatteryMetricsService service(shell, terminator);
  EXPECT_EQ(modeOf(folder_ / "Quenzel"), 0777u);
  EXPECT_EQ(modeOf(database), 0666u);
  // In a folder that everyone may write, a link may lead to a file that is nobody else's business.
  EXPECT_EQ(modeOf(stranger), 0600u);
  EXPECT_EQ(modeOf(linked), 0600u);
}

TEST_F(BatteryMetricsServiceTest, SidecarPermissionsEndAtTheSharedDirectory) {
  const TemporaryDirectory elsewhere;
  const std::string paths[] = {
      elsewhere.write("Quenzel/battery_history.sqlite", ""),
      folder_.path().string() + "x/battery_history.sqlite",  // the same letters, but another folder
      "",
  };
  ::chmod(paths[0].c_str(), 0600);
  for (const std::string& path : paths) ensureSharedSnapshotSidecarPermissions(path);
  EXPECT_EQ(modeOf(paths[0]), 0600u);

  std::filesystem::create_directory_symlink(elsewhere / "Quenzel", folder_ / "Quenzel");
  ensureSharedSnapshotSidecarPermissions(folder_ / "Quenzel/battery_history.sqlite");
  EXPECT_EQ(modeOf(paths[0]), 0600u);
}

}  // namespace
}  // namespace quenzel
