#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "QuenzelMonitor/CommandLine.hpp"
#include "QuenzelMonitor/SampleReport.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/ScopedTimeZone.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using testing::ScopedEnvironment;
using ::testing::StartsWith;
using testing::TemporaryDirectory;

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome quenzelWith(std::vector<const char*> arguments, const std::string& input = "") {
  arguments.insert(arguments.begin(), "quenzel");
  std::istringstream in(input);
  std::ostringstream out;
  std::ostringstream err;
  const int status = runCommandLine(static_cast<int>(arguments.size()), arguments.data(), {in, out, err});
  return {status, out.str(), err.str()};
}

/// Keeps the log and everything else of these tests inside a folder of their own.
class Monitor : public ::testing::Test {
 protected:
  TemporaryDirectory folder_;
  ScopedEnvironment environment_{{{"QZL_SHARED_DIRECTORY", folder_.path().string()},
                                  {"QZL_SOCKET_DIRECTORY", folder_.path().string()},
                                  {"QZL_LOG_DISABLED", "1"},
                                  {"QZL_TOOL_ROOT", QUENZEL_TOOL_DIRECTORY}}};
};

TEST_F(Monitor, InspectsEveryStage) {
  struct Row {
    std::vector<const char*> stage;
    std::string input;
    std::string output;
  };
  const Row rows[] = {
      {{"powermetrics"},
       "CPU Power: 2 W\n*** Running tasks ***\nName     ID CPU ms/s GPU ms/s\n  a       7 4.0      0\n",
       R"({"cpuPackageW":2.0,"gpuPackageW":0.0,"anePackageW":0.0,"combinedPackageW":2.0,"totalTaskCPUmsPerSec":4.0,
           "totalTaskGPUmsPerSec":0.0,"processes":[{"pid":7,"name":"a","cpuMsPerSec":4.0,"gpuMsPerSec":0.0,
           "cpuPackageW":2.0,"gpuPackageW":0.0,"anePackageW":0.0,"packageW":2.0}],"hasPackagePower":true,
           "resolvedCPUAttributionDenominator":4.0,"gpuPackageAllocatedByCPUShare":false})"},
      {{"ps", "--limit", "1", "--tree"},
       "7 1 0.5 0 /bin/sh -c x\n8 0 2.5 0 b\n",
       R"({"sampledProcesses":[{"pid":8,"name":"b","powermetricsGPUFallbackAllocated":false,"residentMemoryBytes":0,
           "cpuPercent":2.5,"cpuTimeDeltaNs":0,"samplingIntervalMs":0.0,"gpuTimeMs":0.0,"diskReadBytes":0.0,
           "diskWriteBytes":0.0,"networkSentBytes":0.0,"networkRecvBytes":0.0}],
           "allProcesses":[{"pid":7,"parentPID":1,"name":"/bin/sh -c x","powermetricsGPUFallbackAllocated":false,
           "residentMemoryBytes":0,"cpuPercent":0.5,"cpuTimeDeltaNs":0,"samplingIntervalMs":0.0,"gpuTimeMs":0.0,
           "diskReadBytes":0.0,"diskWriteBytes":0.0,"networkSentBytes":0.0,"networkRecvBytes":0.0},
           {"pid":8,"name":"b","powermetricsGPUFallbackAllocated":false,"residentMemoryBytes":0,"cpuPercent":2.5,
           "cpuTimeDeltaNs":0,"samplingIntervalMs":0.0,"gpuTimeMs":0.0,"diskReadBytes":0.0,"diskWriteBytes":0.0,
           "networkSentBytes":0.0,"networkRecvBytes":0.0}]})"},
      {{"battery"},
       "<plist "
       "version=\"1.0\"><array><dict><key>CurrentCapacity</key><integer>50</integer><key>MaxCapacity</key>"
       "<integer>100</integer></dict></array></plist>",
       R"({"levelPercent":50.0,"isCharging":false,"externalPowerConnected":false,"maxCapacityMah":100,
           "currentCapacityMah":50})"},
      {{"battery-level"},
       R"([{"displayCurrentCapacity":85,"displayMaxCapacity":100,"isCharged":false},{"isCharged":true},
           {"rawCurrentCapacityMah":1,"rawMaxCapacityMah":4,"displayCurrentCapacity":null,"isCharged":false}])",
       "[85.0,100.0,25.0]"},
      {{"pmset"}, "System:\r LowPowerMode   2\n lowpowermode 1\n", R"({"lowPowerMode":true})"},
      {{"smc"}, R"([{"type":"sp78","bytes":[26,128,0,0]},{"type":"ch8*","bytes":[1,2,3,4]}])", "[26.5,null]"},
      {{"cpu-load"},
       R"({"logicalCPUCount":0,"readings":[{"now":1,"ticks":[0,0,0,4294967295]},{"now":2,"ticks":null},
           {"now":5,"ticks":[30,10,50,9]}]})",
       R"([{"busyFraction":0.0,"logicalCPUCount":1,"intervalSeconds":0.0},
           {"busyFraction":0.0,"logicalCPUCount":1,"intervalSeconds":0.0},
           {"busyFraction":0.5,"logicalCPUCount":1,"intervalSeconds":4.0}])"},
      {{"system-power"},
       R"({"startDate":100,"readings":[{"now":110,"watts":36},{"now":120,"watts":null}]})",
       R"([{"instantaneousW":36.0,"averageW":36.0,"totalConsumptionWh":0.1,"available":true,"preferredVisibleW":36.0},
           {"instantaneousW":36.0,"averageW":36.0,"totalConsumptionWh":0.1,"available":false,
           "preferredVisibleW":36.0}])"},
      {{"energy-model"},
       R"({"readings":[{"now":10,"channels":[{"group":"Energy Model","name":"CPU Energy","unit":"mJ","value":1000}]},
           {"now":10.25,"channels":null},{"now":10.5,"channels":[{"group":"Energy Model","name":"CPU Energy","unit":"mJ",
           "value":2500},{"group":"Energy Model","name":null,"value":7}]}]})",
       R"([{"cpuW":0.0,"gpuW":0.0,"aneW":0.0,"dramW":0.0,"memoryFabricW":0.0,"ramW":0.0,"pciW":0.0,"displayW":0.0,
            "totalTrackedW":0.0,"intervalSeconds":0.0,"supported":true},
           {"cpuW":0.0,"gpuW":0.0,"aneW":0.0,"dramW":0.0,"memoryFabricW":0.0,"ramW":0.0,"pciW":0.0,"displayW":0.0,
            "totalTrackedW":0.0,"intervalSeconds":0.0,"supported":false},
           {"cpuW":3.0,"gpuW":0.0,"aneW":0.0,"dramW":0.0,"memoryFabricW":0.0,"ramW":0.0,"pciW":0.0,"displayW":0.0,
            "totalTrackedW":3.0,"intervalSeconds":0.5,"supported":true}])"},
      {{"discharge-estimate"}, "[[],[1000],[-50]]", "[2.4,65.0,2.4]"},
      {{"config"},
       R"({"samplingMode":"burst","powermetricsIntervalSec":4})",
       R"({"minIntervalSec":5,"maxIntervalSec":30,"developerMode":false,"samplingMode":"burst",
           "backgroundIntervalSec":20,"interactiveIntervalSec":8,"burstIntervalSec":8,"powermetricsIntervalSec":4,
           "hiddenRefreshIntervalSec":300,"usbRefreshIntervalSec":300,"isOnBatteryPower":true,"activeIntervalSec":8,
           "powermetricsCacheTTLSeconds":4})"},
  };
  for (const Row& row : rows) {
    std::vector<const char*> arguments = row.stage;
    arguments.insert(arguments.begin(), "inspect");
    const Outcome outcome = quenzelWith(arguments, row.input);
    EXPECT_EQ(outcome.status, exitSuccess) << row.stage.front() << ": " << outcome.err;
    EXPECT_EQ(nlohmann::json::parse(outcome.out), nlohmann::json::parse(row.output)) << row.stage.front();
  }
  const std::string snapshot = encodeJSON(encodeDrainSnapshot(makeSnapshot(0, 0.1)));
  const auto judged = nlohmann::json::parse(quenzelWith({"inspect", "snapshot"}, snapshot).out);
  EXPECT_EQ(judged["snapshot"], nlohmann::json::parse(snapshot));
  EXPECT_EQ(judged["decision"], "insufficientTotalPower");
  EXPECT_EQ(judged["rejectionReason"], "total power was not high enough to publish");
}

TEST_F(Monitor, AnswersBadInputWithOneLine) {
  struct Row {
    std::vector<const char*> arguments;
    std::string input;
    int status;
    std::string complaint;
  };
  const Row rows[] = {
      {{"inspect", "nothing"}, "", exitUsage, "nothing"},
      {{"frobnicate"}, "", exitUsage, "frobnicate"},
      {{"daemon", "low-power", "maybe"}, "", exitUsage, "maybe"},
      {{"daemon", "terminate", "1x"}, "", exitUsage, "1x"},
      {{"daemon", "terminate", "0x10"}, "", exitUsage, "\"0x10\" is not a whole number"},
      {{"sample", "--watch", "nan"}, "", exitUsage, "\"nan\" is not a number from 0.1 to 604800"},
      {{"sample", "--top", "-1"}, "", exitUsage, "\"-1\" is not a whole number of at least 0 ("},
      {{"inspect", "ps", "--limit", "1.5"}, "", exitUsage, "\"1.5\" is not a whole number ("},
      {{"history", "window", "--anchor", "1e13"}, "", exitUsage, "\"1e13\" is not a number ("},
      {{"daemon", "terminate", "2147483648"}, "", exitUsage, "from -2147483648 to 2147483647 ("},
      {{"sample", "--count", "2"}, "", exitUsage, "--watch"},
      {{"inspect", "pmset", "/nowhere/file"},
       "",
       exitFailure,
       "can't read /nowhere/file: No such file or directory"},
      {{"inspect", "pmset", "/tmp"}, "", exitFailure, "can't read /tmp: it is a folder"},
      {{"inspect", "pmset"},
       "",
       exitFailure,
       "Failed to launch command: Unable to determine lowpowermode state from pmset output."},
      {{"inspect", "ps", "--tree"}, "7 1 0 0 a\n7 1 0 0 b\n", exitFailure, "process 7 is listed twice"},
      {{"inspect", "ps"}, "99999999999 1 0 0 a\n", exitFailure, "the process id 99999999999 is out of range"},
      {{"inspect", "smc"}, R"([{"type":"ui8","bytes":[1,2,3]}])", exitFailure, "[0].bytes"},
      {{"inspect", "smc"}, R"([{"type":"ui8","bytes":[1,2,3,256]}])", exitFailure, "[0].bytes[3]"},
      {{"inspect", "cpu-load"},
       R"({"logicalCPUCount":1,"readings":[{"now":1}]})",
       exitFailure,
       "readings[0].ticks"},
      {{"inspect", "config"}, R"({"samplingMode":"a\nb"})", exitFailure, "samplingMode: \"a?b\""},
      {{"inspect", "snapshot"}, "{", exitFailure, ""},
      {{"inspect", "powermetrics"}, "CPU Power: " + std::string(400, '9') + " W", exitFailure, "cpuPackageW"},
      {{"daemon", "ping"}, "", exitFailure, "com.quenzel.metricsd.sock"},
  };
  for (const Row& row : rows) {
    const Outcome outcome = quenzelWith(row.arguments, row.input);
    EXPECT_EQ(outcome.status, row.status) << row.complaint;
    EXPECT_EQ(outcome.out, "") << row.complaint;
    EXPECT_THAT(outcome.err, AllOf(StartsWith("quenzel: "), HasSubstr(row.complaint)));
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
  }
}

TEST_F(Monitor, SaysWhatThereIs) {
  const std::pair<std::vector<const char*>, std::vector<const char*>> rows[] = {
      {{}, {"Usage: quenzel", "sample ", "record ", "inspect "}},
      {{"history"}, {"Usage: quenzel history", "latest ", "purge "}},
      {{"--help"}, {"Usage: quenzel", "daemon "}},
      {{"sample", "--help"}, {"--watch SECONDS ", "--top N( \\[|=)15", "--count N "}},
      {{"record", "--help"}, {"--mode MODE:.*burst.( \\[|=)background", "--keep-days DAYS "}},
      {{"show", "--help"}, {"--database PATH", "--window LENGTH:.*7d.( \\[|=)24h", "--top N( \\[|=)10"}},
      {{"history", "window", "--help"},
       {"--seconds SECONDS( \\[|=)3600", "--anchor SECONDS ", "--max-rows N( \\[|=)500"}},
      {{"estimates", "list", "--help"}, {"--limit N( \\[|=)100"}},
      {{"inspect", "ps", "--help"}, {"--limit N( \\[|=)1000"}}};
  for (const auto& [arguments, texts] : rows) {
    const Outcome outcome = quenzelWith(arguments);
    EXPECT_EQ(std::tie(outcome.status, outcome.err), std::tuple(exitSuccess, ""));
    for (const char* text : texts)
      EXPECT_THAT(outcome.out, ContainsRegex(text));  // a default is "=15" or " [15]"
  }
}

TEST_F(Monitor, SaysHowToBeginAHistory) {
  const std::string path = folder_ / "h.sqlite";
  const std::string record = "; \"quenzel record --database " + path + "\" records one until it is stopped\n";
  const auto show = [&] { return quenzelWith({"show", "--json", "--database", path.c_str()}); };
  const Outcome missing = show();
  EXPECT_EQ(missing.err, "quenzel: there is no history at " + path + " yet" + record);
  quenzelWith({"history", "import", "--database", path.c_str()}, "");
  const Outcome empty = show();
  EXPECT_EQ(empty.err, "quenzel: the history at " + path + " is empty" + record);
  for (const Outcome& outcome : {missing, empty})
    EXPECT_EQ(std::tie(outcome.status, outcome.out), std::tuple(exitFailure, ""));
  EXPECT_THAT(quenzelWith({"show"}).err, HasSubstr(" yet; \"quenzel record\" records one"));
}

TEST_F(Monitor, SamplesThisMachineThroughTheStandInTools) {
  environment_.set("QZL_MODEL_HARDWARE", "1");
  const Outcome outcome = quenzelWith({"sample", "--json"});
  ASSERT_EQ(outcome.status, exitSuccess) << outcome.err;
  const auto json = nlohmann::json::parse(outcome.out);
  EXPECT_EQ(json["time"], iso8601Text({json["input"]["timestamp"]}));
  EXPECT_GT(json["input"]["processes"].size(), 1U);
  EXPECT_TRUE(json["metadata"]["powermetricsCommandOK"]);
  EXPECT_TRUE(json["metadata"]["powermetricsHasPackagePower"]) << "measured, or modelled where it can't be";
  EXPECT_GT(json["input"]["totalDischargeW"], 0.0);
  EXPECT_GT(json["componentPower"]["cpuW"], 0.0);
}

TEST_F(Monitor, SaysWhatIsMissingAndWhy) {
  environment_.set("QZL_MODEL_HARDWARE", std::nullopt);
  environment_.set("QZL_TOOL_ROOT", folder_ / "tools");
  std::filesystem::permissions(
      folder_.write("tools/usr/bin/powermetrics", "#!/bin/sh\necho broken >&2\nexit 3\n"),
      std::filesystem::perms::owner_all);
  std::filesystem::permissions(folder_.write("tools/usr/sbin/ioreg", "#!/bin/sh\nexit 4\n"),
                               std::filesystem::perms::owner_all);
  std::filesystem::permissions(
      folder_.write("tools/bin/ps", "#!/bin/sh\necho '7 1 8,0 0,1 /a'; echo '8 1 1.0 0.0 /b'\n"),
      std::filesystem::perms::owner_all);
  const Outcome outcome = quenzelWith({"sample", "--watch", "0.1", "--count", "2", "--top", "3"});
  EXPECT_EQ(outcome.status, exitSuccess);
  EXPECT_THAT(outcome.out, HasSubstr("  processes: rows of ps that can't be read: 1\n"));
  EXPECT_THAT(outcome.out, HasSubstr("  powermetrics: powermetrics command failed: broken\n"));
  EXPECT_THAT(outcome.out, HasSubstr("unknown: "));
  EXPECT_THAT(outcome.out, Not(HasSubstr("odelled")));
  const std::string title = "Quenzel at ";
  EXPECT_NE(outcome.out.find(title, outcome.out.find(title) + 1), std::string::npos)
      << "two cycles, two reports";
}

TEST(SampleReport, ShowsFiguresTheirSourceAndWhatIsModelled) {
  const testing::ScopedTimeZone nepal("<+0545>-05:45");
  SamplingCycleResult result;
  result.hasBattery = result.onBattery = true;
  result.build.input.totalDischargeW = 11.25;
  result.build.input.screenModelW = 2;
  result.build.metadata.screenModelAvailable = true;
  result.build.metadata.powermetricsParsedProcessCount = 2;
  ProcessSample heavy = makeProcessSample(7, "/opt/a/very/long/path/to/an/executable\x1b[31m", 3);
  heavy.powermetricsPackageW = 1.5;
  heavy.powermetricsGPUFallbackAllocated = true;
  result.build.input.processes = {makeProcessSample(9, "idle"), makeProcessSample(8, "b\u00FCsy", 55), heavy};
  result.build.batteryStatus = BatteryStatusSample{
      .levelPercent = 81.5, .remainingWh = 50, .systemTimeRemainingMinutes = 247, .dischargeWatts = 11.25};
  result.unavailable = {{"USB power", "no\nreading"}};
  result.modelled = {.battery = false, .powerCounters = true};
  result.componentPower = {
      .cpuW = 3.5, .dramW = 0.25, .totalTrackedW = 3.75, .intervalSeconds = 2.04, .supported = true};
  result.componentPower.memoryFabricW = 1.5;
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
            "was asked "
            "for.\n");
  const std::tuple<const char*, std::size_t, bool, std::string> cut[] = {
      {"/usr/bin/\u4E00\u4E00\u4E00\u4E00", 17, true, "/usr/bin/\u4E00\u4E00\u4E00\u4E00"},
      {"/usr/bin/\u4E00\u4E00\u4E00\u4E00", 16, true, "\u2026/\u4E00\u4E00\u4E00\u4E00"},
      {"/usr/bin/\u4E00\u4E00\u4E00\u4E00\u4E00", 11, true, "\u4E00\u4E00\u4E00\u4E00\u4E00"},
      {"\u4E00\u4E00\u4E00\u4E00\u4E00\u4E00", 11, true, "\u4E00\u4E00\u4E00\u4E00\u4E00\u2026"},
      {"/usr/lib/b\u00FCsy", 9, false, ".../b?sy"},
      {"/usr/lib/b\u00FCsy-daemon", 10, false, "b?sy-da..."},
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
