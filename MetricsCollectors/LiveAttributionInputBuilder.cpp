#include "MetricsCollectors/LiveAttributionInputBuilder.hpp"

#include <algorithm>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Base/FatalError.hpp"
#include "Base/Number.hpp"
#include "Base/Text.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"

namespace quenzel {
namespace {

constexpr std::string_view component = "InputBuilder";
constexpr double leastPowermetricsOnlyW = 0.01;
constexpr std::size_t pathlessPreviewEntries = 10;
constexpr std::size_t powermetricsOnlyPreviewEntries = 8;

ComponentProfiler::Context noContext() { return {}; }

/// Where the total power comes from.
struct TotalPower {
  double watts;
  std::string_view source;
  bool isEstimated;
};

TotalPower chooseTotalPower(bool onBattery, double componentW, std::optional<double> batteryW) {
  if (!onBattery) return {nonNegative(componentW), "PM-Package+Components", true};
  if (batteryW.value_or(0) > 0) return {*batteryW, "IOKit", false};
  return {0, "none", false};
}

bool isOnBattery(const std::optional<BatteryStatusSample>& battery, const SamplingConfig& config) {
  return battery ? !battery->externalPowerConnected && !battery->isCharging : config.isOnBattery();
}

/// The records in order of pid, each of which stands only once.
class RecordsByPID {
 public:
  explicit RecordsByPID(const PowermetricsParseOutput& output) : matched_(output.processes.size(), false) {
    entries_.reserve(output.processes.size());
    for (const PowermetricsProcessRecord& record : output.processes)
      entries_.emplace_back(record.pid, entries_.size());
    std::sort(entries_.begin(), entries_.end());
    const auto twice =
        std::adjacent_find(entries_.begin(), entries_.end(),
                           [](const Entry& left, const Entry& right) { return left.first == right.first; });
    if (twice != entries_.end())
      fatalError(fmt::format("powermetrics reported process {} twice.", twice->first));
  }

  /// Index of the pid's record, which counts as matched from now on.
  std::optional<std::size_t> match(std::int64_t pid) {
    const auto entry = std::lower_bound(entries_.begin(), entries_.end(), Entry(pid, 0));
    if (entry == entries_.end() || entry->first != pid) return std::nullopt;
    matched_[entry->second] = true;
    return entry->second;
  }
  bool isMatched(std::size_t index) const { return matched_[index]; }

 private:
  using Entry = std::pair<std::int64_t, std::size_t>;

  std::vector<Entry> entries_;
  std::vector<bool> matched_;
};

void takeWatts(ProcessSample& sample, const PowermetricsProcessRecord& record, bool gpuFallback) {
  sample.powermetricsPackageW = record.packageW;
  sample.powermetricsCPUW = record.cpuPackageW;
  sample.powermetricsGPUW = record.gpuPackageW;
  sample.powermetricsGPUFallbackAllocated = record.gpuPackageW > 0 && gpuFallback;
}

/// Names are what others chose, so the line is made printable.
std::string joined(const std::vector<std::string>& entries) {
  return printableLine(fmt::format("{}", fmt::join(entries, " | ")));
}

void logNameDebug(const std::vector<ProcessSample>& merged, std::size_t powermetricsOnly) {
  if (!isNameDebugEnabled()) return;
  const std::size_t psCount = merged.size() - powermetricsOnly;
  std::size_t pathless = 0;
  std::vector<std::string> pathlessPreview;
  std::vector<std::string> powermetricsOnlyPreview;
  for (std::size_t index = 0; index < merged.size(); ++index) {
    const ProcessSample& sample = merged[index];
    if (!sample.name.starts_with('/')) {
      ++pathless;
      if (pathlessPreview.size() < pathlessPreviewEntries) {
        pathlessPreview.push_back(fmt::format("pid={} name={}", sample.pid, sample.name));
      }
    }
    if (index >= psCount && powermetricsOnlyPreview.size() < powermetricsOnlyPreviewEntries) {
      powermetricsOnlyPreview.push_back(fmt::format("pid={} name={} pmPackageW={:.2f}", sample.pid,
                                                    sample.name, sample.powermetricsPackageW.value_or(0)));
    }
  }
  RuntimeLog::info(
      component, fmt::format("name-debug processSamples={}, merged={}, mergedPathless={}, pmOnly={}", psCount,
                             merged.size(), pathless, powermetricsOnly));
  if (pathless > 0)
    RuntimeLog::info(component, "name-debug pathless merged preview: " + joined(pathlessPreview));
  if (powermetricsOnly > 0) {
    RuntimeLog::info(component, "name-debug pm-only preview: " + joined(powermetricsOnlyPreview));
  }
}

void logSources(const SamplingConfig& config, const TotalPower& total, const PowermetricsLoadResult& power,
                std::optional<double> batteryW) {
  // The configuration's flag, which the total may have passed over: the two together show that the battery
  // decided.
  RuntimeLog::info(
      component,
      fmt::format(
          "sources isOnBattery={}, powerSource={}, iokitW={}, pmCommandOK={}, pmParsed={}, pmPackage={:.2f}, "
          "totalW={:.2f}",
          boolText(config.isOnBattery()), total.source, twoDecimalsOrNil(batteryW), boolText(power.commandOK),
          power.value ? power.value->processes.size() : 0, power.value ? power.value->combinedPackageW : 0.0,
          total.watts));
}

AttributionBuildMetadata metadataOf(const PowermetricsLoadResult& power, const TotalPower& total,
                                    const AttributionInput& input) {
  AttributionBuildMetadata metadata;
  metadata.powermetricsCommandOK = power.commandOK;
  if (power.value) {
    metadata.powermetricsParsedProcessCount = static_cast<std::int64_t>(power.value->processes.size());
    metadata.powermetricsHasPackagePower = power.value->hasPackagePower();
    metadata.powermetricsHasSystemPower = power.value->totalSystemWatts.value_or(0) > 0;
  }
  metadata.usedEstimatedTotalPower = total.isEstimated;
  metadata.screenModelAvailable = input.screenModelW > 0;
  metadata.usbModelAvailable = input.usbModelW > 0;
  return metadata;
}

}  // namespace

LiveAttributionInputBuilder::LiveAttributionInputBuilder(Collaborators collaborators)
    : with_(std::move(collaborators)) {}

AttributionInput LiveAttributionInputBuilder::build(std::vector<HiddenWorkloadMapping> hiddenMappings,
                                                    bool developerMode) const {
  return buildWithMetadata(std::move(hiddenMappings), developerMode).input;
}

AttributionBuildResult LiveAttributionInputBuilder::buildWithMetadata(
    std::vector<HiddenWorkloadMapping> hiddenMappings, bool developerMode) const {
  SamplingSettings settings;
  settings.developerMode = developerMode;
  return buildWithMetadata(with_.processSampler.sampleTopProcesses(processSampleLimit),
                           std::move(hiddenMappings), SamplingConfig(settings));
}

AttributionBuildResult LiveAttributionInputBuilder::buildWithMetadata(
    std::vector<ProcessSample> processSamples, std::vector<HiddenWorkloadMapping> hiddenMappings,
    const SamplingConfig& config) const {
  const SpanOrigin origin{with_.componentProfiler.makeCorrelationID("input-builder"),
                          "MetricsCollectors/LiveAttributionInputBuilder",
                          "buildWithMetadata(processSamples:hiddenMappings:config:)"};
  const std::size_t sampleCount = processSamples.size();
  std::size_t mergedCount = 0;
  const auto context = [&] {
    return ComponentProfiler::Context{{"processSamples", std::to_string(sampleCount)},
                                      {"samplingMode", std::string(rawValue(config.samplingMode()))},
                                      {"mergedProcesses", std::to_string(mergedCount)}};
  };
  return with_.componentProfiler.measure(BenchmarkComponent::daemonInputBuild, origin, context, [&] {
    auto result = buildTimed(std::move(processSamples), std::move(hiddenMappings), config, origin);
    mergedCount = result.input.processes.size();
    return result;
  });
}

AttributionBuildResult LiveAttributionInputBuilder::buildTimed(
    std::vector<ProcessSample> processSamples, std::vector<HiddenWorkloadMapping> hiddenMappings,
    const SamplingConfig& config, const SpanOrigin& origin) const {
  ComponentProfiler& profiler = with_.componentProfiler;
  AttributionBuildResult result;
  AttributionInput& input = result.input;
  input.timestamp = with_.nowProvider();
  input.processes = std::move(processSamples);
  input.hiddenMappings = std::move(hiddenMappings);
  input.developerMode = config.developerMode();

  const PowermetricsLoadResult power = profiler.measure(BenchmarkComponent::daemonInputPowermetrics, origin,
                                                        noContext, [&] { return loadPowermetrics(); });
  std::size_t powermetricsOnly = 0;
  const auto mergeContext = [&] {
    return ComponentProfiler::Context{{"mergedProcesses", std::to_string(input.processes.size())},
                                      {"powermetricsOnly", std::to_string(powermetricsOnly)}};
  };
  profiler.measure(BenchmarkComponent::daemonInputProcessMerge, origin, mergeContext, [&] {
    if (power.value) powermetricsOnly = merge(input.processes, *power.value, input.timestamp);
  });
  logNameDebug(input.processes, powermetricsOnly);

  result.batteryStatus = profiler
                             .measure(BenchmarkComponent::daemonInputBatteryStatus, origin, noContext,
                                      [&] { return loadBatteryStatus(); })
                             .output;
  input.screenModelW = profiler.measure(BenchmarkComponent::daemonInputDisplayEstimate, origin, noContext,
                                        [&] { return with_.displayEstimator.estimateWatts(); });
  input.usbModelW = profiler.measure(BenchmarkComponent::daemonInputUSBEstimate, origin, noContext,
                                     [&] { return with_.usbEstimator.estimateWatts(); });

  const auto batteryW = result.batteryStatus ? result.batteryStatus->dischargeWatts : std::nullopt;
  const double componentW =
      input.screenModelW + input.usbModelW + (power.value ? power.value->combinedPackageW : 0);
  const TotalPower total = chooseTotalPower(isOnBattery(result.batteryStatus, config), componentW, batteryW);
  input.totalDischargeW = total.watts;
  logSources(config, total, power, batteryW);
  result.metadata = metadataOf(power, total, input);
  return result;
}

PowermetricsLoadResult LiveAttributionInputBuilder::loadPowermetrics() const {
  try {
    return {with_.powermetricsCollector.collectNormalizedSample(), true, 1};
  } catch (const std::exception& error) {
    RuntimeLog::error(component, "powermetrics collection failed: " + printableLine(error.what()));
    return {std::nullopt, false, 1};
  }
}

CommandLoadResult<BatteryStatusSample> LiveAttributionInputBuilder::loadBatteryStatus() const {
  try {
    return {with_.batteryCollector.collectStatus(), true, 1};
  } catch (const std::exception&) {  // a machine without a battery is no event
    return {std::nullopt, false, 1};
  }
}

std::size_t LiveAttributionInputBuilder::merge(std::vector<ProcessSample>& samples,
                                               const PowermetricsParseOutput& output, PointInTime now) const {
  RecordsByPID records(output);
  const bool gpuFallback = output.gpuPackageAllocatedByCPUShare();
  for (ProcessSample& sample : samples) {
    const auto index = records.match(sample.pid);
    if (index && output.processes[*index].packageW > 0)
      takeWatts(sample, output.processes[*index], gpuFallback);
  }
  const std::size_t listedCount = samples.size();
  for (std::size_t index = 0; index < output.processes.size(); ++index) {
    const PowermetricsProcessRecord& record = output.processes[index];
    if (record.packageW > leastPowermetricsOnlyW && !records.isMatched(index)) {
      samples.push_back(powermetricsOnlySample(record, gpuFallback, now));
    }
  }
  return samples.size() - listedCount;
}

ProcessSample LiveAttributionInputBuilder::powermetricsOnlySample(const PowermetricsProcessRecord& record,
                                                                  bool gpuFallback, PointInTime now) const {
  if (record.pid > std::numeric_limits<std::int32_t>::max()) {
    fatalError(
        fmt::format("powermetrics reported the process id {}, which no system gives out.", record.pid));
  }
  auto metadata =
      with_.metadataCache.resolve(static_cast<std::int32_t>(record.pid), now, with_.processMetadataResolver);
  ProcessSample sample;
  sample.pid = record.pid;
  sample.name = record.name;
  if (metadata) {
    if (metadata->executablePath || metadata->bundlePath) {
      sample.name = metadata->executablePath ? *metadata->executablePath : *metadata->bundlePath;
    }
    sample.bundleID = std::move(metadata->bundleID);
  }
  takeWatts(sample, record, gpuFallback);
  return sample;
}

}  // namespace quenzel
