#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MetricsCollectors/LiveAttributionInputBuilder.hpp"
#include "Tests/Support/FakeClock.hpp"
#include "Tests/Support/FakeShell.hpp"
#include "Tests/Support/LoggedLines.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using ::testing::ElementsAre;
using testing::FakeClock;
using testing::FakeShell;
using ::testing::HasSubstr;
using testing::linesLoggedBy;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

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

class InputBuilding : public ::testing::Test {
 protected:
  AttributionBuildResult build(std::vector<ProcessSample> samples = {},
                               const SamplingSettings& settings = {}) {
    return builder_.buildWithMetadata(std::move(samples), {}, SamplingConfig(settings));
  }

  FakeShell shell_;
  FakeClock clock_;
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
  ProcessSampler sampler_{
      shell_, {lookup_, cache_, [](const std::string&) { return false; }, clock_.provider(), profiler_}};
  DisplayPowerEstimator display_{watts_};
  USBPowerEstimator usb_{&watts_};
  LiveAttributionInputBuilder builder_{
      {sampler_, powermetrics_, display_, usb_, battery_, lookup_, cache_, clock_.provider(), profiler_}};
  TemporaryDirectory shared_;
  ScopedEnvironment environment_{
      {{"QZL_SHARED_DIRECTORY", shared_.path().string()}, {"QZL_LOG_DISABLED", "1"}}};
};

TEST_F(InputBuilding, MergesRecordsIntoSamplesAndAddsTheRest) {
  powermetrics_.output =
      PowermetricsParseOutput{.gpuPackageW = 1,
                              .combinedPackageW = 6,
                              .totalTaskCPUmsPerSec = 5,
                              .processes = {record(12, 0), record(30, 0.02), record(11, 2, 0.5),
                                            record(31, 0.5), record(32, 0.011), record(33, 0.01)}};
  const AttributionInput input =
      build({makeProcessSample(10, "/a", 3), makeProcessSample(11, "/b", 2), makeProcessSample(12, "/c", 1)})
          .input;
  const ProcessSample thirty{.pid = 30, .name = "/opt/thirty", .bundleID = "org.thirty"};
  EXPECT_THAT(input.processes,
              ElementsAre(makeProcessSample(10, "/a", 3), measured(makeProcessSample(11, "/b", 2), 2, 0.5),
                          makeProcessSample(12, "/c", 1), measured(thirty, 0.02),
                          measured(makeProcessSample(31, "/opt/T.app"), 0.5),
                          measured(makeProcessSample(32, "record-32"), 0.011)));
  EXPECT_EQ(input.timestamp, clock_.now());
}

TEST_F(InputBuilding, ChoosesTheTotalAndItsSource) {
  using Battery = std::optional<BatteryStatusSample>;
  const auto battery = [](bool external, bool charging, std::optional<double> discharge) {
    return Battery{{.isCharging = charging, .externalPowerConnected = external, .dischargeWatts = discharge}};
  };
  // The battery, whether the configuration says that it is in use, the package's power (0: powermetrics
  // fails), the total, where that comes from and what the battery said.
  const std::tuple<Battery, bool, double, double, std::string, std::string> rows[] = {
      {battery(true, false, {}), true, 6, 8.5, "PM-Package+Components", "nil"},
      {battery(false, true, 4.0), true, 0, 2.5, "PM-Package+Components", "4.00"},
      {{}, false, 6, 8.5, "PM-Package+Components", "nil"},
      {battery(true, false, {}), false, -9, 0, "PM-Package+Components", "nil"},  // never below zero
      {battery(false, false, 11.25), false, 6, 11.25, "IOKit", "11.25"},
      {battery(false, false, 0.0), false, 6, 0, "none", "0.00"},
      {battery(false, false, {}), true, 6, 0, "none", "nil"},
      {{}, true, 6, 0, "none", "nil"}};
  watts_.display = 2;
  watts_.usb = 0.5;
  const std::string failed =
      "[ERROR] [InputBuilder] powermetrics collection failed: powermetrics command failed: gone?";
  for (const auto& [status, configuredOnBattery, packageW, total, source, iokitW] : rows) {
    battery_.status = status;
    const bool succeeds = packageW != 0;
    powermetrics_.output.reset();
    if (succeeds)
      powermetrics_.output =
          PowermetricsParseOutput{.combinedPackageW = packageW, .processes = {record(1, 1)}};
    std::vector<std::string> expected(succeeds ? 0 : 1, failed);
    expected.push_back(fmt::format(
        "[INFO] [InputBuilder] sources isOnBattery={}, powerSource={}, iokitW={}, pmCommandOK={}, "
        "pmParsed={:d}, pmPackage={:.2f}, totalW={:.2f}",
        configuredOnBattery, source, iokitW, succeeds, succeeds, packageW, total));
    SamplingSettings settings;
    settings.isOnBatteryPower = configuredOnBattery;
    AttributionBuildResult result;
    EXPECT_EQ(linesLoggedBy([&] { result = build({}, settings); }), expected);
    EXPECT_EQ(result.input.totalDischargeW, total) << expected.back();
    EXPECT_EQ(result.metadata.usedEstimatedTotalPower, source.starts_with("PM")) << expected.back();
    EXPECT_EQ(result.batteryStatus, status);
  }
}

TEST_F(InputBuilding, ReportsWhatItUsed) {
  EXPECT_EQ(build().metadata, AttributionBuildMetadata{});
  powermetrics_.output = PowermetricsParseOutput{
      .anePackageW = 1, .totalSystemWatts = 4, .processes = {record(1, 1), record(2, 0)}};
  watts_.display = 0.1;
  EXPECT_EQ(build().metadata, (AttributionBuildMetadata{true, 2, true, true, false, true, false}));
  powermetrics_.output->totalSystemWatts = 0;
  EXPECT_FALSE(build().metadata.powermetricsHasSystemPower);
}

TEST_F(InputBuilding, SamplesTheProcessesItself) {
  std::string ps = "7 0 9.0 0 c\n";
  for (int pid = 8; pid < 1100; ++pid) ps += fmt::format("{} 1 5.0 0 a\n", pid);
  shell_.output("/bin/ps", ps);
  const AttributionInput input = builder_.build({{.identifier = "web", .hostShares = {{7, 1.0}}}}, true);
  ASSERT_EQ(input.processes.size(), 1000U) << "the busiest";
  EXPECT_EQ(input.processes[0].name, "c");
  EXPECT_TRUE(input.developerMode);
  EXPECT_EQ(input.hiddenMappings.at(0).identifier, "web");
  EXPECT_FALSE(builder_.build({}, false).developerMode);
}

TEST_F(InputBuilding, TimesEveryStageUnderOneCorrelation) {
  powermetrics_.output = PowermetricsParseOutput{.processes = {record(30, 1)}};
  build({makeProcessSample(1, "x")});
  std::string components;
  for (const ComponentSpan& span : spans_) {
    components += fmt::format("{} ", span.component);
    EXPECT_EQ(
        fmt::format("{} {} {}", span.origin.correlationID, span.origin.sourceFile, span.origin.function),
        "input-builder-1 MetricsCollectors/LiveAttributionInputBuilder "
        "buildWithMetadata(processSamples:hiddenMappings:config:)");
  }
  ASSERT_EQ(components,
            "daemonInputPowermetrics daemonInputProcessMerge daemonInputBatteryStatus "
            "daemonInputDisplayEstimate daemonInputUSBEstimate daemonInputBuild ");
  using Context = ComponentProfiler::Context;
  EXPECT_EQ(spans_[1].context, (Context{{"mergedProcesses", "2"}, {"powermetricsOnly", "1"}}));
  EXPECT_EQ(spans_[5].context,
            (Context{{"processSamples", "1"}, {"samplingMode", "background"}, {"mergedProcesses", "2"}}));
}

TEST_F(InputBuilding, TakesADuplicateRecordForFatal) {
  powermetrics_.output = PowermetricsParseOutput{.processes = {record(5, 1), record(5, 1)}};
  EXPECT_DEATH(build(), "Fatal error: powermetrics reported process 5 twice");
  powermetrics_.output = PowermetricsParseOutput{.processes = {record(4294967296, 1)}};
  EXPECT_DEATH(build(), "Fatal error: powermetrics reported the process id 4294967296");
}

TEST_F(InputBuilding, LogsNamesForDebugging) {
  environment_.set("QZL_PROCESS_NAME_DEBUG", "1");
  powermetrics_.output.emplace();
  std::string pathless = "pid=2 name=y?", only;
  for (int pid = 100; pid < 112; ++pid) {
    powermetrics_.output->processes.push_back(record(pid, 1.006));
    if (pid < 109) pathless += fmt::format(" | pid={0} name=record-{0}", pid);
    if (pid < 108)
      only += fmt::format("{1}pid={0} name=record-{0} pmPackageW=1.01", pid, only.empty() ? "" : " | ");
  }
  const std::string prefix = "[INFO] [InputBuilder] name-debug ";
  const auto twoProcesses = [&] { build({makeProcessSample(1, "/x"), makeProcessSample(2, "y\n")}); };
  EXPECT_THAT(linesLoggedBy(twoProcesses),
              ElementsAre(prefix + "processSamples=2, merged=14, mergedPathless=13, pmOnly=12",
                          prefix + "pathless merged preview: " + pathless,
                          prefix + "pm-only preview: " + only, HasSubstr("sources")));
  powermetrics_.output->processes.clear();
  EXPECT_THAT(
      linesLoggedBy([&] { build({makeProcessSample(1, "/x")}); }),
      ElementsAre(prefix + "processSamples=1, merged=1, mergedPathless=0, pmOnly=0", HasSubstr("sources")));
}

}  // namespace
}  // namespace quenzel
