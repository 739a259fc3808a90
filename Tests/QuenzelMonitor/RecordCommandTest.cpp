#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "QuenzelMonitor/LastingMessage.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"
#include "Tests/Support/Command.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/SystemTree.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

class RecordCommand : public ::testing::Test {
 protected:
  testing::TemporaryDirectory folder_;
  testing::ScopedEnvironment environment_{{{"QZL_SHARED_DIRECTORY", folder_.path().string()},
                                           {"QZL_LOG_DISABLED", "1"},
                                           {"QZL_MODEL_HARDWARE", "1"},
                                           {"QZL_TOOL_ROOT", QUENZEL_TOOL_DIRECTORY}}};
  const std::string enter_ = "cd " + folder_.path().string() + "; ",
                    record_ = QUENZEL_BINARY_DIRECTORY "/quenzel record --database h.sqlite ";

  void install(const std::string& tool, const std::string& script) {
    std::filesystem::permissions(folder_.write("tools/" + tool, "#!/bin/sh\n" + script),
                                 std::filesystem::perms::owner_all);
  }
  std::vector<DrainSnapshot> history() {
    return SQLiteSnapshotStore(folder_ / "h.sqlite", SQLiteSnapshotStore::Mode::readOnly).fetchLatest(9);
  }
};

TEST_F(RecordCommand, AcknowledgesWhatTheDatabaseHolds) {
  const auto result = testing::runCommand(enter_ + record_ + "--json --interval 6 --count 2 --keep-days 1");
  std::istringstream lines(result.output);
  std::string line;
  for (const DrainSnapshot& stored : history()) {
    std::getline(lines, line);
    const auto acknowledged = parseJSON(line);
    EXPECT_EQ(acknowledged["outcome"], "inserted");
    EXPECT_EQ(acknowledged["databaseTimestamp"], stored.timestamp.secondsSince1970());
    EXPECT_EQ(acknowledged["time"], iso8601Text(stored.timestamp));
    EXPECT_EQ(acknowledged["processCount"], stored.processes.size());
  }
  EXPECT_EQ(history().size(), 2U);
}

TEST_F(RecordCommand, EndsCleanlyOnASignal) {
  const std::string ended =
      "ended: 1 inserted 0 replacedNearDuplicate 0 droppedNearDuplicate 0 rejected 0 failed\n";
  for (const std::string signal : {"INT", "TERM"}) {  // in the wait behind the first cycle
    const std::string command = enter_ + "mkfifo " + signal + "; " + record_ + "--interval 60 >" + signal +
                                " & exec 3<" + signal + "; read opening <&3; read line <&3; kill -" + signal +
                                " $!; cat <&3; wait $!";
    EXPECT_EQ(testing::runCommand(command), (testing::CommandResult{0, ended})) << signal;
  }
  EXPECT_EQ(history().size(), 2U);
}

TEST_F(RecordCommand, TellsWhatFailsInOneLine) {
  install("bin/ps", "echo gone >&2; exit 3");
  const std::tuple<std::string, int, const char*> rows[] = {
      {"--interval 0.5", 2, "quenzel: .*\"0.5\" is not a number from 2 to 60.*\n"},
      {"--mode fast", 2, "quenzel: --mode: .*\n"},
      {"--count 0", 2, "quenzel: .*at least 1.*\n"},
      {"--quiet --count 1 >/dev/full", 0, ""},
      {"--count 1 >/dev/full", 1, "quenzel: can't write the output\n"},
      {"--quiet --interval 6 --count 2", 1, "quenzel: .*: gone\nquenzel: .*: gone\n"},  // every cycle failed
  };
  for (const auto& [options, status, output] : rows) {
    if (status == 1 && options.starts_with("--quiet")) environment_.set("QZL_TOOL_ROOT", folder_ / "tools");
    const auto result = testing::runCommand("(" + enter_ + record_ + options + ")");
    EXPECT_EQ(result.status, status) << options;
    EXPECT_THAT(result.output, ::testing::MatchesRegex(output)) << options;
  }
}

TEST_F(RecordCommand, SaysOnceWhatItMayNotRead) {
  const testing::SystemTree tree;
  install("usr/bin/powermetrics", "echo 'a password is required' >&2; exit 1");
  install("bin/ps", "echo '7 1 1.0 0.0 /a'");
  install("usr/sbin/ioreg", "exec " QUENZEL_TOOL_DIRECTORY "/usr/sbin/ioreg \"$@\"");
  environment_.set("QZL_TOOL_ROOT", folder_ / "tools");
  const std::string record = enter_ + record_ + "--interval 6 --count 2",
                    refusal = "powermetrics: powermetrics requires admin privileges: [^\n]*";
  EXPECT_THAT(testing::runCommand(record).output,
              ::testing::MatchesRegex("recording [^\n]*\nrejected [^\n]*; " + refusal +
                                      "\nrejected [^\n]* for the same reason as before\nended: [^\n]*\n"));
  tree.powerSupply("BAT0", testing::attributes("type=Battery,status=Discharging,capacity=50,"
                                               "voltage_now=12000000,current_now=1000000"));
  EXPECT_THAT(testing::runCommand(record).output,
              ::testing::MatchesRegex("recording [^\n]*\ninserted [^\n]*\nquenzel: " + refusal +
                                      "\ninserted [^\n]*\nended: [^\n]*\n"));
}

TEST(LastingMessage, IsSaidWhenItIsNewAndEveryTenthMinute) {
  LastingMessage message;
  const std::tuple<const char*, double, bool> rows[] = {
      {"", 0, false},    {"a", 20, true},  {"a", 40, false}, {"a", 619, false}, {"a", 620, true},
      {"a", 630, false}, {"b", 640, true}, {"a", 660, true}, {"", 680, false},  {"a", 700, true}};
  for (const auto& [text, seconds, isDue] : rows) EXPECT_EQ(message.isDue(text, seconds), isDue) << seconds;
}

}  // namespace
}  // namespace quenzel
