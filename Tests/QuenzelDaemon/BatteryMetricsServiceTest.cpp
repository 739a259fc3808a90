#include <gtest/gtest.h>
#include <sys/stat.h>

#include "QuenzelDaemon/BatteryMetricsService.hpp"
#include "Tests/Support/FakeShell.hpp"
#include "Tests/Support/LoggedLines.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using testing::FakeShell;
using testing::modeOf;
using Message = std::optional<std::string>;
using Lines = std::vector<std::string>;

struct FakeTerminator final : ProcessTerminating {
  explicit FakeTerminator(const ProcessTerminationResult& says) : result(says) {}
  ProcessTerminationResult terminateProcess(std::int32_t) const override { return result; }
  const ProcessTerminationResult& result;
};

/// "success / message" of a reply.
std::string described(bool success, const Message& message) {
  return (success ? "true / " : "false / ") + message.value_or("(none)");
}

class BatteryMetricsServiceTest : public ::testing::Test {
 protected:
  /// Makes the request of a service that has just started; the lines that it logs then, and at the end each
  /// of its replies, described.
  template <typename Request>
  Lines outcomeOf(const ShellRunning& shell, const ProcessTerminationResult& termination, Request request) {
    const FakeTerminator terminator(termination);
    Lines replies;
    Lines outcome = testing::linesLoggedBy([&] {
      BatteryMetricsService service(shell, terminator);
      request(service,
              [&](bool success, const Message& message) { replies.push_back(described(success, message)); });
    });
    EXPECT_EQ(outcome.front(), "[INFO] [Daemon] BatteryMetricsService initialized.");
    outcome.erase(outcome.begin());
    outcome.insert(outcome.end(), replies.begin(), replies.end());
    return outcome;
  }

  testing::TemporaryDirectory folder_;
  testing::ScopedEnvironment environment_{{{"QZL_SHARED_DIRECTORY", folder_.path()}}};
};

TEST_F(BatteryMetricsServiceTest, SetsLowPowerModeAndReadsItBack) {
  const ShellResult done{};
  const auto prints = [](std::string text) { return ShellResult{0, std::move(text), ""}; };
  const std::string applied = "[INFO] [Daemon] setLowPowerMode applied successfully.";
  const std::string unverified = "[ERROR] [Daemon] setLowPowerMode verification failed: ";
  const std::string failed = "[ERROR] [Daemon] setLowPowerMode failed: ";
  const std::string broken = "[ERROR] [Daemon] setLowPowerMode command error: ";
  // The wish, what pmset answers to -a and to -g, the line of the log without its end, and that: the message.
  const std::tuple<bool, std::vector<FakeShell::Reply>, std::string, Message> rows[] = {
      {true, {done, prints("Currently in use:\n\t LowPowerMode \u00a0 1 \u2003\n")}, applied, {}},
      {false, {done, prints(" sleep 1\r lowpowermode         0\r disksleep 10")}, applied, {}},
      // The first line that decides wins; "2" and a word do not decide.
      {true, {done, prints("lowpowermode 2\nlowpowermode on\nlowpowermode 1\nlowpowermode 0")}, applied, {}},
      {true, {done, prints(" lowpowermode 0\n")}, unverified, "pmset completed but lowpowermode remained 0"},
      {true, {ShellResult{1, "out", "\n\r\n"}}, failed, "pmset returned status 1"},
      {true, {ShellResult{64, "", "\n \nfoo"}}, failed, " "},  // blanks are not empty, and no line is trimmed
      {true, {done, ShellRunnerError::timedOut("pmset", 4)}, broken, "Command timed out after 4.0s: pmset"},
      {true, {done, ShellResult{3, "lowpowermode 1", "no"}}, broken, "Command exited with status 3: no"},
      {true,
       {done, prints("xlowpowermode 1\nlowpowermode")},
       broken,
       "Failed to launch command: Unable to determine lowpowermode state from pmset output."},
  };
  for (const auto& [enabled, replies, log, message] : rows) {
    FakeShell shell;
    for (const FakeShell::Reply& reply : replies) shell.reply("/usr/bin/pmset", reply);
    const Lines outcome = outcomeOf(
        shell, {}, [&, on = enabled](auto& service, auto reply) { service.setLowPowerMode(on, reply); });
    const std::string received = "[INFO] [Daemon] setLowPowerMode request received: enabled=";
    EXPECT_EQ(outcome, (Lines{received + (enabled ? "true" : "false"), log + message.value_or(""),
                              described(!message, message)}));
    std::vector<FakeShell::Call> calls = {{"/usr/bin/pmset", {"-a", "lowpowermode", enabled ? "1" : "0"}}};
    if (replies.size() > 1) calls.push_back({"/usr/bin/pmset", {"-g"}});
    EXPECT_EQ(shell.calls(), calls) << log;
  }
}

TEST_F(BatteryMetricsServiceTest, RepliesWhatTheTerminatorSays) {
  const std::string failed = "[ERROR] [Daemon] terminateProcess failed for pid=42: ";
  const std::pair<ProcessTerminationResult, std::string> rows[] = {
      {{true, "Process 42 required SIGKILL."}, "[INFO] [Daemon] terminateProcess succeeded for pid=42"},
      {{false, "Invalid PID 42."}, failed + "Invalid PID 42."},
      {{false, std::nullopt}, failed + "unknown"}};
  for (const auto& [result, log] : rows) {
    const Lines outcome = outcomeOf(FakeShell(), result,
                                    [](auto& service, auto reply) { service.terminateProcess(42, reply); });
    EXPECT_EQ(outcome, (Lines{"[INFO] [Daemon] terminateProcess request received: pid=42", log,
                              described(result.succeeded, result.message)}));
  }
}

TEST_F(BatteryMetricsServiceTest, AnswersPingsAndEveryConnection) {
  const Lines outcome = outcomeOf(FakeShell(), {}, [](auto& service, const auto& reply) {
    EXPECT_TRUE(service.shouldAcceptNewConnection());
    service.ping([&](bool ok) { reply(ok, std::nullopt); });
  });
  EXPECT_EQ(outcome, (Lines{"[INFO] [Daemon] Accepted XPC connection.", "[INFO] [Daemon] ping received.",
                            "true / (none)"}));
}

TEST_F(BatteryMetricsServiceTest, StartOpensTheSharedDatabaseToEveryone) {
  const std::string database = folder_.write("Quenzel/battery_history.sqlite", "");
  const std::string stranger = folder_.write("stranger", ""), linked = folder_.write("linked", "");
  ::chmod((folder_ / "Quenzel").c_str(), 0700);
  for (const std::string& file : {stranger, linked, database}) ::chmod(file.c_str(), 0600);
  std::filesystem::create_symlink(stranger, database + "-wal");
  std::filesystem::create_hard_link(linked, database + "-shm");
  outcomeOf(FakeShell(), {}, [](auto&, const auto&) {});
  EXPECT_EQ(modeOf(folder_ / "Quenzel"), 0777u);
  EXPECT_EQ(modeOf(database), 0666u);
  // In a folder that everyone may write, a link may lead to a file that is nobody else's business.
  EXPECT_EQ(modeOf(stranger), 0600u);
  EXPECT_EQ(modeOf(linked), 0600u);
}

}  // namespace
}  // namespace quenzel
