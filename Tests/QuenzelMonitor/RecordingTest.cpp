#include <sstream>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Engine/SnapshotRecorder.hpp"
#include "QuenzelMonitor/Commands/LastingMessage.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"
#include "Tests/Support/Command.hpp"
#include "Tests/Support/FakeClock.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/SystemTree.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using enum RecordingOutcome;
using Seconds = std::vector<double>;

SamplingCycleResult cycleOf(double totalW, std::vector<ProcessSample> processes = {}, bool whole = true) {
  SamplingCycleResult result;
  result.build = {{{}, totalW, std::move(processes)}, {.powermetricsCommandOK = whole}, {}};
  return result;
}

/// A machine whose time passes only while the recorder waits or a cycle lets it.
struct World {
  double seconds = 0, stopAt = 1e9;
  testing::FakeClock wall;
  PointInTime newest = wall.now() + 1e9;
  std::function<SamplingCycleResult()> cycle = [] { return cycleOf(5); };
  std::function<SnapshotInsertOutcome()> insertion = [] { return SnapshotInsertOutcome::inserted; };
  std::function<void()> purging = [] {};
  Seconds startedAt, purgedAt;
  DrainSnapshot stored;
  std::vector<PointInTime> purgedBefore;
  std::vector<RecordingOutcome> reported;
  std::vector<std::string> complaints, notices;
  void pass(double span) {
    seconds += span;
    wall.advance(span);
  }
  RecordingTally record(SnapshotRecorderOptions options) {
    const SnapshotRecorder::Collaborators with{
        [this] { return startedAt.push_back(seconds), cycle(); },
        [this](const DrainSnapshot& snapshot) { return stored = snapshot, insertion(); },
        [this](PointInTime before) {
          return purgedAt.push_back(seconds), purgedBefore.push_back(before), purging(), 1;
        },
        [this] { return newest; },
        wall.provider(),
        [this] { return seconds; },
        [this](double span) {
          pass(std::min(span, std::max(stopAt - seconds, 0.0)));
          return seconds >= stopAt;
        },
        [this](const RecordedCycle& recorded) { reported.push_back(recorded.outcome); },
        [this](const std::string& text) { notices.push_back(text); },
        [this](const std::string& failure) { complaints.push_back(failure); }};
    return SnapshotRecorder(with, options).run();
  }
};

TEST(SnapshotRecorder, KeepsItsCadenceAndCatchesUpWithNothing) {
  World slow, setBack;
  slow.cycle = [&, took = Seconds{1, 25, 9, 7200, 0}] {
    return slow.pass(took.at(slow.startedAt.size() - 1)), cycleOf(5);
  };
  slow.record({.intervalSeconds = 10, .cycleCount = 5});
  EXPECT_EQ(slow.startedAt, (Seconds{0, 10, 40, 50, 7260}));
  setBack.cycle = [&] { return setBack.wall.advance(-3600), cycleOf(5); };
  EXPECT_EQ(setBack.record({.intervalSeconds = 0.1, .cycleCount = 50})[inserted], 50);
  ASSERT_EQ(setBack.startedAt.size(), 50U);
  EXPECT_NEAR(setBack.startedAt.back(), 4.9, 1e-9);
}

TEST(SnapshotRecorder, LengthensAnIntervalThatCyclesDoNotFitInto) {
  World mac;  // its powermetrics samples for 5 s
  mac.cycle = [&, took = Seconds{5.25, 5.5, 5.25, 5.75, 5.25, 12, 2, 8, 7, 1}] {
    return mac.pass(took.at(mac.startedAt.size() - 1)), cycleOf(5);
  };
  mac.record({.intervalSeconds = 2, .cycleCount = 10});
  EXPECT_EQ(mac.startedAt, (Seconds{0, 6, 12, 18, 24, 30, 48, 54, 66, 74}));
  EXPECT_EQ(mac.notices,
            (std::vector<std::string>{"cycles take longer than 2 s: from now on there is one every 6 s",
                                      "cycles take longer than 6 s: from now on there is one every 8 s"}));
}

TEST(SnapshotRecorder, GoesOnAfterEveryFailure) {
  World world;
  const auto number = [&] { return world.startedAt.size(); };
  world.cycle = [&] {
    return number() == 1 ? throw std::runtime_error("ps gone\n") : cycleOf(number() == 2 ? 0.1 : 5);
  };
  world.insertion = [&] {
    using enum SnapshotInsertOutcome;
    return number() == 3   ? throw std::runtime_error("disk full")
           : number() == 4 ? inserted
                           : droppedNearDuplicate;
  };
  world.record({.cycleCount = 5});
  EXPECT_EQ(world.reported, (std::vector{failed, rejected, failed, inserted, droppedNearDuplicate}));
  EXPECT_EQ(world.complaints,
            (std::vector<std::string>{"the cycle failed: ps gone", "can't store the snapshot: disk full"}));
}

TEST(SnapshotRecorder, StopsBetweenCycles) {
  World waiting;
  waiting.stopAt = 35;
  EXPECT_EQ(std::tuple(waiting.record({.intervalSeconds = 10})[inserted], waiting.seconds),
            std::tuple(4, 35));
  for (const bool toolsWereSpared : {true, false}) {
    World sampling;
    sampling.cycle = [&] { return sampling.stopAt = 0, cycleOf(5, {}, toolsWereSpared); };
    EXPECT_EQ(sampling.record({})[inserted], toolsWereSpared ? 1 : 0);
  }
}

TEST(SnapshotRecorder, NamesEveryRowThatItStores) {
  World world;
  const ProcessSample idle = makeProcessSample(7, "/Applications/Foo.app/Contents/MacOS/Foo"),
                      helper{.pid = 8, .parentPID = 7, .name = "/opt/helper", .cpuPercent = 50};
  world.cycle = [&] { return cycleOf(8, {idle, helper, makeProcessSample(9, " \n", 25)}); };
  world.record({.cycleCount = 1, .logicalCPUCount = 1});
  ASSERT_EQ(world.stored.processes.size(), 2U) << "the idle application has no row";
  EXPECT_EQ(world.stored.processes[0].canonicalName, "Foo") << "but lends its name";
  EXPECT_EQ(world.stored.processes[0].processGroupKey, "app:/applications/foo.app");
  EXPECT_EQ(world.stored.processes[1].displayName, "pid 9");
}

TEST(SnapshotRecorder, PurgesAtTheStartAndThenSeldom) {
  World world;
  world.purging = [&] {
    if (world.purgedAt.size() == 2) throw std::runtime_error("locked");
  };
  world.record({.intervalSeconds = 600, .cycleCount = 40, .keepDays = 1});  // a tenth of a day is 8640 s
  EXPECT_EQ(world.purgedAt, (Seconds{0, 9000, 12600, 21600}));
  EXPECT_EQ(world.purgedBefore.back() - world.purgedBefore.front(), 21600) << "a day back from now";
  World ahead;  // the clock, by a year
  ahead.newest = ahead.wall.now() - 365 * 86'400;
  ahead.record({.cycleCount = 1, .keepDays = 1});
  EXPECT_EQ(ahead.newest - ahead.purgedBefore.at(0), 86'400) << "a day back from the newest snapshot";
  EXPECT_EQ(world.complaints, std::vector<std::string>{"can't purge the history: locked"});
}

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
