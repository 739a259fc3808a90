#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MetricsCollectors/LiveAttributionInputBuilder.hpp"
#include "Tests/Support/FakeClock.hpp"
#include "Tests/Support/FakeShell.hpp"
#include "Tests/Support/LoggedLines.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"

namespace quenzel {
namespace {

using namespace ::testing;
using testing::linesLoggedBy;

struct FakePowermetrics final : PowermetricsCollecting {
  std::optional<PowermetricsParseOutput> output;
  PowermetricsParseOutput collectNormalizedSample() const override {
    if (!output) throw PowermetricsCollectorError::commandFailed("gone\x1B");
    return *output;
  }
};

struct FakeBattery final : BatteryStatusCollecting {
  std::optional<BatteryStatusSample> status;
  BatteryStatusSample collectStatus() const override {
    if (!status) throw ShellRunnerError::failedToLaunch("no battery");
    return *status;
  }
};

struct FakeWatts final : SMCDisplayPowerReading, SMCUSBPowerReading {
  std::optional<double> display, usb;
  std::optional<double> readDisplayPowerWatts() override { return display; }
  std::optional<double> readThunderboltLeftPowerWatts() override { return usb; }
  std::optional<double> readThunderboltRightPowerWatts() override { return {}; }
};

PowermetricsProcessRecord record(std::int64_t pid, double cpuW, double gpuW = 0) {
  return {pid, "record-" + std::to_string(pid), 1, 0, cpuW, gpuW, 0, cpuW + gpuW};
}

/// The sample with the watts of a record, the GPU's by CPU share.
ProcessSample measured(ProcessSample sample, double cpuW, double gpuW = 0) {
  sample.powermetricsPackageW = cpuW + gpuW;
  sample.powermetricsCPUW = cpuW;
  sample.powermetricsGPUW = gpuW;
  sample.powermetricsGPUFallbackAllocated = gpuW > 0;
  return sample;
}

class InputBuilding : public Test {
 protected:
  AttributionBuildResult build(std::vector<ProcessSample> samples = {},
                               const SamplingSettings& settings = {}) {
    return builder_.buildWithMetadata(std::move(samples), {}, SamplingConfig(settings));
  }

  testing::FakeShell shell_;
  testing::FakeClock clock_;
  FakePowermetrics powermetrics_;
  FakeBattery battery_;
  FakeWatts watts_;
  RunningProcessMetadataCache cache_;
  std::vector<ComponentSpan> spans_;
  ComponentProfiler profiler_{[this](const ComponentSpan& span) { spans_.push_back(span); }};
  RunningProcessMetadataLookup lookup_ = [](std::int32_t pid) -> std::optional<RunningProcessMetadata> {
    if (pid == 30) return RunningProcessMetadata{"/opt/thirty", "/opt/T.app", "org.thirty"};
    if (pid == 31) return RunningProcessMetadata{{}, "/opt/T.app", {}};
    return std::nullopt;
  };
  ProcessSampler sampler_{shell_, lookup_, cache_, profiler_};
  DisplayPowerEstimator display_{watts_};
  USBPowerEstimator usb_{&watts_};
  LiveAttributionInputBuilder builder_{
      {sampler_, powermetrics_, display_, usb_, battery_, lookup_, cache_, clock_.provider(), profiler_}};
};

TEST_F(InputBuilding, MergesRecordsIntoSamplesAddsTheRestAndReportsWhatItUsed) {
  powermetrics_.output = PowermetricsParseOutput{
      .gpuPackageW = 1,
      .totalSystemWatts = 4,
      .totalTaskCPUmsPerSec = 5,
      .processes = {record(11, 2, 0.5), record(30, 0.02), record(10, 0), record(12, 1), record(31, 0.5),
                    record(INT32_MAX, 0.011), record(33, 0.01)}};
  watts_.display = watts_.usb = 0.1;
  const auto [input, metadata, battery] =
      build({makeProcessSample(10, "/a", 3), makeProcessSample(11, "/b", 2), makeProcessSample(12, "/c", 1)});
  const ProcessSample thirty{.pid = 30, .name = "/opt/thirty", .bundleID = "org.thirty"};
  EXPECT_THAT(input.processes,
              ElementsAre(makeProcessSample(10, "/a", 3), measured(makeProcessSample(11, "/b", 2), 2, 0.5),
                          measured(makeProcessSample(12, "/c", 1), 1), measured(thirty, 0.02),
                          measured(makeProcessSample(31, "/opt/T.app"), 0.5),
                          measured(makeProcessSample(INT32_MAX, "record-2147483647"), 0.011)));
  EXPECT_EQ(input.timestamp, clock_.now());
  EXPECT_EQ(metadata, (AttributionBuildMetadata{true, 7, true, true, false, true, true}));
  powermetrics_.output->totalSystemWatts = 0;
  EXPECT_FALSE(build().metadata.powermetricsHasSystemPower);
}

TEST_F(InputBuilding, ChoosesTheTotalAndItsSource) {
  using Battery = std::optional<BatteryStatusSample>;
  const auto battery = [](bool external, bool charging, std::optional<double> discharge) {
    return Battery{{.isCharging = charging, .externalPowerConnected = external, .dischargeWatts = discharge}};
  };
  // The battery, whether the configuration says that it is in use, the package's power, the total, where that
  // comes from and what the battery said.
  const std::tuple<Battery, bool, double, double, std::string, std::string> rows[] = {
      {battery(true, false, {}), true, 6, 8.5, "PM-Package+Components", "nil"},
      {battery(false, true, 4.0), true, 6, 8.5, "PM-Package+Components", "4.00"},
      {{}, false, 6, 8.5, "PM-Package+Components", "nil"},
      {{}, false, -9, 0, "PM-Package+Components", "nil"},  // never below zero
      {battery(false, false, 0.5), false, 6, 0.5, "IOKit", "0.50"},
      {battery(false, false, 0.0), false, 6, 0, "none", "0.00"},
      {{}, true, 6, 0, "none", "nil"}};
  watts_.display = 2;
  watts_.usb = 0.5;
  for (const auto& [status, configuredOnBattery, packageW, total, source, iokitW] : rows) {
    battery_.status = status;
    powermetrics_.output = PowermetricsParseOutput{.combinedPackageW = packageW, .processes = {record(1, 1)}};
    SamplingSettings settings;
    settings.isOnBatteryPower = configuredOnBattery;
    AttributionBuildResult result;
    const std::string line = fmt::format(
        "[INFO] [InputBuilder] sources isOnBattery={}, powerSource={}, iokitW={}, pmCommandOK=true, "
        "pmParsed=1, pmPackage={:.2f}, totalW={:.2f}",
        configuredOnBattery, source, iokitW, packageW, total);
    EXPECT_THAT(linesLoggedBy([&] { result = build({}, settings); }), ElementsAre(line));
    EXPECT_EQ(result.input.totalDischargeW, total) << line;
    EXPECT_EQ(result.metadata.usedEstimatedTotalPower, source.starts_with("PM")) << line;
    EXPECT_EQ(result.batteryStatus, status);
  }
}

TEST_F(InputBuilding, DoesWithoutPowermetricsAndBattery) {
  AttributionBuildResult result;
  EXPECT_THAT(
      linesLoggedBy([&] { result = build(); }),
      ElementsAre("[ERROR] [InputBuilder] powermetrics collection failed: powermetrics command failed: gone?",
                  EndsWith("iokitW=nil, pmCommandOK=false, pmParsed=0, pmPackage=0.00, totalW=0.00")));
  EXPECT_EQ(result.metadata, AttributionBuildMetadata{});
}

TEST_F(InputBuilding, SamplesTheProcessesItself) {
  std::string ps = "7 0 9.0 0 c\n";
  for (int pid = 8; pid < 1100; ++pid) ps += fmt::format("{} 1 5.0 0 a\n", pid);
  shell_.output("/bin/ps", ps);
  const AttributionInput input = builder_.build({{.identifier = "web", .hostShares = {{7, 1.0}}}}, true);
  ASSERT_EQ(input.processes.size(), 1000U) << "the busiest";
  EXPECT_EQ(input.processes[0].name, "c");
  EXPECT_TRUE(input.developerMode);
  EXPECT_THAT(spans_.at(0).context,
              ElementsAre(Pair("includeAll", "0"), Pair("limit", "1000"), Pair("stage", "parse")));
  EXPECT_EQ(input.hiddenMappings.at(0).identifier, "web");
  EXPECT_FALSE(builder_.build({}, false).developerMode);
}

TEST_F(InputBuilding, TimesEveryStageUnderOneCorrelation) {
  powermetrics_.output = PowermetricsParseOutput{.processes = {record(30, 1)}};
  build({makeProcessSample(1, "x")});
  std::string spans;
  for (const ComponentSpan& span : spans_)
    spans += fmt::format("{} {} {}\n", span.origin.correlationID, span.component, span.context);
  EXPECT_EQ(
      spans,
      "input-builder-1 daemonInputPowermetrics {}\n"
      "input-builder-1 daemonInputProcessMerge {\"mergedProcesses\": \"2\", \"powermetricsOnly\": \"1\"}\n"
      "input-builder-1 daemonInputBatteryStatus {}\n"
      "input-builder-1 daemonInputDisplayEstimate {}\n"
      "input-builder-1 daemonInputUSBEstimate {}\n"
      "input-builder-1 daemonInputBuild {\"mergedProcesses\": \"2\", \"processSamples\": \"1\", "
      "\"samplingMode\": \"background\"}\n");
  EXPECT_EQ(spans_[0].origin.sourceFile, "MetricsCollectors/LiveAttributionInputBuilder");
  EXPECT_EQ(spans_[0].origin.function, "buildWithMetadata(processSamples:hiddenMappings:config:)");
}

TEST_F(InputBuilding, TakesADuplicateRecordForFatal) {
  powermetrics_.output = PowermetricsParseOutput{.processes = {record(5, 1), record(5, 1)}};
  EXPECT_DEATH(build(), "Fatal error: powermetrics reported process 5 twice");
  powermetrics_.output = PowermetricsParseOutput{.processes = {record(2147483648, 1)}};
  EXPECT_DEATH(build(), "Fatal error: powermetrics reported the process id 2147483648");
}

TEST_F(InputBuilding, LogsNamesForDebugging) {
  const testing::ScopedEnvironment debugging{{{"QZL_PROCESS_NAME_DEBUG", "1"}}};
  powermetrics_.output.emplace();
  for (int pid = 100; pid < 112; ++pid) powermetrics_.output->processes.push_back(record(pid, 1.006));
  const auto twoProcesses = [&] { build({makeProcessSample(1, "/x"), makeProcessSample(2, "y\n")}); };
  const std::string prefix = "[INFO] [InputBuilder] name-debug ";
  EXPECT_THAT(
      linesLoggedBy(twoProcesses),
      ElementsAre(prefix + "processSamples=2, merged=14, mergedPathless=13, pmOnly=12",
                  AllOf(StartsWith(prefix + "pathless merged preview: pid=2 name=y? | pid=100 name=rec"),
                        EndsWith(" | pid=107 name=record-107 | pid=108 name=record-108")),
                  AllOf(StartsWith(prefix + "pm-only preview: pid=100 name=record-100 pmPackageW=1.01 | p"),
                        EndsWith(" | pid=107 name=record-107 pmPackageW=1.01")),
                  HasSubstr("sources")));
}

}  // namespace
}  // namespace quenzel
