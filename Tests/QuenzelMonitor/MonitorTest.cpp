#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "QuenzelMonitor/Console.hpp"
#include "QuenzelMonitor/Views/SampleReport.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Tests/QuenzelMonitor/RunQuenzel.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/ScopedTimeZone.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using namespace ::testing;
using namespace testing;

/// Keeps the log and everything else of these tests inside a folder of their own.
class Monitor : public ::testing::Test {
 protected:
  TemporaryDirectory folder_;
  ScopedEnvironment environment_{{{"QZL_SHARED_DIRECTORY", folder_.path().string()},
                                  {"QZL_SOCKET_DIRECTORY", folder_.path().string()},
                                  {"QZL_LOG_DISABLED", "1"},
                                  {"QZL_TOOL_ROOT", QUENZEL_TOOL_DIRECTORY}}};
};

/// A snapshot's JSON with an application and its helper, so many seconds after the reference date.
std::string snapshotAt(double seconds, double levelPercent) {
  DrainSnapshot snapshot = makeSnapshot(0, 10, {makeProcessDrain(9, "/É.app/É", 5, {})});
  snapshot.timestamp = {seconds};
  snapshot.processes.push_back({.pid = 8, .parentPID = 9, .name = "(x)"});
  snapshot.batteryStatus.emplace().levelPercent = levelPercent;
  return encodeJSON(encodeDrainSnapshot(snapshot));
}

TEST_F(Monitor, InspectsEveryStage) {
  const std::string
      idle = R"({"busyFraction":0.0,"logicalCPUCount":1,"intervalSeconds":0.0})",
      tenthWh = R"("instantaneousW":36.0,"averageW":36.0,"totalConsumptionWh":0.1,"preferredVisibleW":36.0})",
      start = snapshotAt(0, 50), later = snapshotAt(36, 49),
      quiet = encodeJSON(encodeDrainSnapshot(makeSnapshot(0, 0.1))),
      watts = R"(,"totalW":8,"processW":1,"componentW":2,"unattributedW":5,"onBatteryPower":true})",
      points = fmt::format(R"([{{"id":"é 1","timestamp":0{0},{{"id":"","timestamp":36{0}])", watts),
      energy = R"([{"id":"é 1","timestamp":0,"totalWh":0,"batteryWh":0},
                   {"id":"","timestamp":36,"totalWh":0.08,"batteryWh":0.08}])";
  const auto process = [](std::int64_t pid) {
    return encodeJSON(encodeProcessDrain(makeProcessDrain(pid, "", 1)));
  };
  // What the output holds at least.
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"powermetrics",
       "CPU Power: 2 W\n*** Running tasks ***\nName     ID CPU ms/s GPU ms/s\n  a       7 4.0      0\n",
       R"({"cpuPackageW":2.0,"gpuPackageW":0.0,"anePackageW":0.0,"combinedPackageW":2.0,"totalTaskCPUmsPerSec":4.0,
           "totalTaskGPUmsPerSec":0.0,"processes":[{"pid":7,"name":"a","cpuMsPerSec":4.0,"gpuMsPerSec":0.0,
           "cpuPackageW":2.0,"gpuPackageW":0.0,"anePackageW":0.0,"packageW":2.0}],"hasPackagePower":true,
           "resolvedCPUAttributionDenominator":4.0,"gpuPackageAllocatedByCPUShare":false})"},
      {"ps --limit 1 --tree", "7 1 0.5 0 /bin/sh -c x\n8 0 2.5 0 b\n",
       R"({"sampledProcesses":[{"pid":8,"name":"b","cpuPercent":2.5}],
           "allProcesses":[{"pid":7,"parentPID":1,"name":"/bin/sh -c x"},{"pid":8,"name":"b"}]})"},
      {"battery",
       "<plist version=\"1.0\"><array><dict><key>CurrentCapacity</key><integer>50</integer>"
       "<key>MaxCapacity</key><integer>100</integer></dict></array></plist>",
       R"({"levelPercent":50.0,"externalPowerConnected":false,"maxCapacityMah":100,"currentCapacityMah":50})"},
      {"battery-level",
       R"([{"displayCurrentCapacity":85,"displayMaxCapacity":100,"isCharged":false},{"isCharged":true},
           {"rawCurrentCapacityMah":1,"rawMaxCapacityMah":4,"displayCurrentCapacity":null,"isCharged":false}])",
       "[85.0,100.0,25.0]"},
      {"pmset", "System:\r LowPowerMode   2\n lowpowermode 1\n", R"({"lowPowerMode":true})"},
      {"smc", R"([{"type":"sp78","bytes":[26,128,0,0]},{"type":"ch8*","bytes":[1,2,3,4]}])", "[26.5,null]"},
      {"cpu-load",
       R"({"logicalCPUCount":0,"readings":[{"now":1,"ticks":[0,0,0,4294967295]},{"now":2,"ticks":null},
           {"now":5,"ticks":[30,10,50,9]}]})",
       "[" + idle + "," + idle + R"(,{"busyFraction":0.5,"logicalCPUCount":1,"intervalSeconds":4.0}])"},
      {"system-power", R"({"startDate":100,"readings":[{"now":110,"watts":36},{"now":120,"watts":null}]})",
       R"([{"available":true,)" + tenthWh + R"(,{"available":false,)" + tenthWh + "]"},
      {"energy-model",
       R"({"readings":[{"now":10,"channels":[{"group":"Energy Model","name":"CPU Energy","unit":"mJ","value":1000}]},
           {"now":10.25,"channels":null},{"now":10.5,"channels":[{"group":"Energy Model","name":"CPU Energy","unit":"mJ",
           "value":2500},{"group":"Energy Model","name":null,"value":7}]}]})",
       R"([{"cpuW":0.0,"intervalSeconds":0.0,"supported":true},{"cpuW":0.0,"supported":false},
           {"cpuW":3.0,"totalTrackedW":3.0,"intervalSeconds":0.5,"supported":true}])"},
      {"discharge-estimate", "[[],[1000],[-50]]", "[2.4,65.0,2.4]"},
      {"config", R"({"samplingMode":"burst","powermetricsIntervalSec":4})",
       R"({"minIntervalSec":5,"samplingMode":"burst","powermetricsIntervalSec":4,"isOnBatteryPower":true,
           "activeIntervalSec":8,"powermetricsCacheTTLSeconds":4})"},
      {"snapshot", quiet,
       R"({"decision":"insufficientTotalPower","rejectionReason":"total power was not high enough to publish",
           "snapshot":)" +
           quiet + "}"},
      {"snapshot-quality", "[" + start + "]", "[1.5]"},
      {"presentation", R"({"snapshots":[)" + start + "]}",
       R"j({"annotated":[{"processes":[{},{"canonicalName":"É","processGroupKey":"app:/é.app"}]}],"processes":[[
           {"processAppBundlePath":"/É.app","processExecutablePath":"/É.app/É"},
           {"processDisplayName":"x","processSubtitleText":"(x)","processPresentationScore":1,"executableLeaf":"x",
            "hasPowermetricsSourceFlag":false,"isAppleSystemProcess":false}]]})j"},
      {"synthetic-pid", R"([""])", "[-1935665603]"},
      {"termination",
       fmt::format(R"({{"groupedProcess":{},"subprocesses":[{}]}})", process(4294967296), process(1)),
       R"({"targetPIDs":[1]})"},
      {"apple-process",
       R"([{"name":"x","displayName":"Dock"},{"name":"x","bundleID":"com.apple.x","displayName":"x"}])",
       "[true,true]"},
      {"summary",
       fmt::format(R"({{"sourceRaw":[{1},{0}],"fallbackSnapshot":{0},"windowSeconds":60}})", start, later),
       R"({"windowed":[0,36],"totalWh":0.1,"groupedWhByName":{"É":0.05},"rangeSnapshot":36,"processGroups":[
           {"id":"é","canonicalName":"É","totalDrainW":5,"totalEnergyWh":0.05,
           "processes":["-119930795-/É.app/É"]}]})"},
      {"power-trend", fmt::format(R"({{"points":{},"maxPoints":1}})", points),
       fmt::format(R"({{"clamped":{0},"dipFilled":{0},"medianFiltered":{0},"smoothed":{0},"downsampled":{0},
           "energyTrend":{1},"energyDownsampled":{1}}})",
                   points, energy)},
      {"battery-trend",
       fmt::format(R"({{"snapshots":[{},{}],"graphMaxPoints":9}})", start, snapshotAt(360, 49)),
       R"({"batteryLevelTrend":[{"id":"0","timestamp":0,"levelPercent":50},{"id":"360000","timestamp":360,
           "levelPercent":49}],"drainRatePerHour":10})"}};
  for (const auto& [stage, input, output] : rows) {
    const Outcome outcome = runQuenzel(std::string("inspect ") + stage, input);
    ASSERT_EQ(outcome.status, exitSuccess) << stage << ": " << outcome.err;
    const nlohmann::json found = outcome.json().flatten(), expected = nlohmann::json::parse(output).flatten();
    for (const auto& [place, value] : expected.items())
      EXPECT_EQ(found.value(place, nlohmann::json()), value) << stage << place;
  }
}

TEST_F(Monitor, AnswersBadInputWithOneLine) {
  const std::tuple<const char*, std::string, int, const char*> rows[] = {
      {"inspect nothing", "", exitUsage, "nothing"},
      {"daemon low-power maybe", "", exitUsage, "maybe"},
      {"sample --watch nan", "", exitUsage, "\"nan\" is not a number from 0.1 to 604800"},
      {"sample --top -1", "", exitUsage, "\"-1\" is not a whole number of at least 0 ("},
      {"history window --anchor 1e13", "", exitUsage, "\"1e13\" is not a number ("},
      {"daemon terminate 2147483648", "", exitUsage, "from -2147483648 to 2147483647 ("},
      {"inspect pmset /nowhere/file", "", exitFailure, "can't read /nowhere/file: No such file or directory"},
      {"inspect ps", "99999999999 1 0 0 a\n", exitFailure, "the process id 99999999999 is out of range"},
      {"inspect smc", R"([{"type":"ui8","bytes":[1,2,3,256]}])", exitFailure, "[0].bytes[3]"},
      {"inspect power-trend", R"({"points":[{"id":1}],"maxPoints":1})", exitFailure, "points[0].id"},
      {"inspect config", R"({"samplingMode":"a\nb"})", exitFailure, "samplingMode: \"a?b\""},
      {"inspect powermetrics", "CPU Power: " + std::string(400, '9') + " W", exitFailure, "cpuPackageW"},
      {"daemon ping", "", exitFailure, "com.quenzel.metricsd.sock"}};
  for (const auto& [words, input, status, complaint] : rows) {
    const Outcome outcome = runQuenzel(words, input);
    EXPECT_EQ(std::tie(outcome.status, outcome.out), std::tuple(status, "")) << words;
    EXPECT_THAT(outcome.err, AllOf(StartsWith("quenzel: "), HasSubstr(complaint)));
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
  }
}

TEST_F(Monitor, SaysHowToBeginAHistory) {
  const std::string path = folder_ / "h.sqlite";
  const std::string record = "; \"quenzel record --database " + path + "\" records one until it is stopped\n";
  const std::string show = "show --json --database " + path;
  EXPECT_EQ(runQuenzel(show).err, "quenzel: there is no history at " + path + " yet" + record);
  runQuenzel("history import --database " + path);
  const Outcome empty = runQuenzel(show);
  EXPECT_EQ(empty.err, "quenzel: the history at " + path + " is empty" + record);
  EXPECT_EQ(std::tie(empty.status, empty.out), std::tuple(exitFailure, ""));
}

TEST(SampleReport, ShowsFiguresTheirSourceAndWhatIsModelled) {
  const testing::ScopedTimeZone nepal("<+0545>-05:45");
  SamplingCycleResult result;
  result.hasBattery = result.onBattery = true;
  result.build.input = {
      {}, 11.25, {makeProcessSample(9, "idle"), makeProcessSample(8, "b\u00FCsy", 55)}, {}, 2};
  result.build.metadata.screenModelAvailable = true;
  result.build.metadata.powermetricsParsedProcessCount = 2;
  ProcessSample heavy = makeProcessSample(7, "/opt/a/very/long/path/to/an/executable\x1b[31m", 3);
  heavy.powermetricsPackageW = 1.5;
  heavy.powermetricsGPUFallbackAllocated = true;
  result.build.input.processes.push_back(heavy);
  result.build.batteryStatus = BatteryStatusSample{
      .levelPercent = 81.5, .remainingWh = 50, .systemTimeRemainingMinutes = 247, .dischargeWatts = 11.25};
  result.unavailable = {{"USB power", "no\nreading"}};
  result.modelled = {.battery = false, .powerCounters = true};
  result.componentPower = {3.5, 0, 0, 0.25, 1.5, 1.75, 0, 0, 3.75, 2.04, true};
  EXPECT_EQ(sampleReport(result, {.topProcesses = 5, .width = 80}),
            "Quenzel at 2001-01-01 05:45:00 +0545\n"
            "  Power      on battery\n"
            "  Battery    81.5 %, discharging at 11.25 W, 50.0 Wh left, 4 h 07 min to empty\n"
            "  Total      11.25 W, reported by the battery (source IOKit)\n"
            "  Display    2.00 W\n"
            "  USB        not available\n"
            "  Components CPU 3.50 W, DRAM 0.25 W, 3.75 W tracked over 2.0 s, and memory fabric 1.50 W "
            "besides (modelled)\n"
            "  Processes  3 sampled; powermetrics lists 2\n"
            "\n"
            "     PID   CPU %     WATTS  WATTS FROM                                NAME\n"
            "       7     3.0     1.500  powermetrics, GPU by CPU share, modelled  executabl\u2026\n"
            "       8    55.0         -  ps only                                   b\u00FCsy\n"
            "       1  other process, at rest or below these\n"
            "CPU % is what ps reports: on Linux the average over the process's whole life.\n"
            "\n"
            "Not available:\n"
            "  USB power: no?reading\n"
            "\n"
            "Modelled, not measured: the power counters. The machine has none that can be read, and a model "
            "was asked for.\n");
  const nlohmann::json json = encodeSample(result);
  EXPECT_EQ(json["metadata"],
            nlohmann::json::parse(R"({"powermetricsCommandOK":false,"powermetricsParsedProcessCount":2,
                "powermetricsHasPackagePower":false,"powermetricsHasSystemPower":false,
                "usedEstimatedTotalPower":false,"screenModelAvailable":true,"usbModelAvailable":false})"));
  EXPECT_EQ(json["time"], "2001-01-01T00:00:00Z");
  EXPECT_EQ(json["componentPower"]["cpuW"], 3.5);
  EXPECT_EQ(json["unavailable"], nlohmann::json::parse(R"([{"source":"USB power","reason":"no\nreading"}])"));
  EXPECT_EQ(json["modelled"], nlohmann::json::parse(R"(["powerCounters"])"));
  const std::tuple<const char*, std::size_t, bool, std::string> cut[] = {
      {"/usr/bin/\u4E00\u4E00\u4E00\u4E00", 16, true, "\u2026/\u4E00\u4E00\u4E00\u4E00"},
      {"\u4E00\u4E00\u4E00\u4E00\u4E00\u4E00", 11, true, "\u4E00\u4E00\u4E00\u4E00\u4E00\u2026"},
      {"/usr/lib/b\u00FCsy-daemon", 8, false, "/usr/lib/b?sy-daemon"}};  // too narrow for any name
  for (const auto& [name, room, isUnicode, shown] : cut) {
    SamplingCycleResult narrow;
    narrow.build.input.processes = {makeProcessSample(1, name, 1)};
    const SampleReportLayout layout{.width = 42 + room, .isUnicode = isUnicode};
    EXPECT_THAT(sampleReport(narrow, layout), HasSubstr("ps only       " + shown + "\n")) << name;
  }
  result.componentPower.intervalSeconds = 0;
  EXPECT_EQ(sampleReport(result, {}).find("Components"), std::string::npos) << "nothing was measured";
}

}  // namespace
}  // namespace quenzel
