#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "Base/PointInTime.hpp"
#include "MetricsCollectors/BatteryStatusCollector.hpp"
#include "MetricsCollectors/PowerEstimators.hpp"
#include "MetricsCollectors/PowermetricsCollector.hpp"
#include "MetricsCollectors/ProcessSampler.hpp"
#include "MetricsCollectors/RunningProcessMetadataCache.hpp"
#include "SharedModels/Runtime/ComponentProfiler.hpp"
#include "SharedModels/Snapshot/AttributionInput.hpp"
#include "SharedModels/Snapshot/BatteryStatusSample.hpp"
#include "SharedModels/Snapshot/SamplingConfig.hpp"

namespace quenzel {

/// Which sources one build could use.
struct AttributionBuildMetadata {
  bool powermetricsCommandOK = false;
  std::int64_t powermetricsParsedProcessCount = 0;
  bool powermetricsHasPackagePower = false;
  bool powermetricsHasSystemPower = false;
  bool usedEstimatedTotalPower =
      false;  ///< the total was put together from components, not measured by the battery
  bool screenModelAvailable = false;
  bool usbModelAvailable = false;

  bool operator==(const AttributionBuildMetadata&) const = default;
};

struct AttributionBuildResult {
  AttributionInput input;
  AttributionBuildMetadata metadata;
  std::optional<BatteryStatusSample> batteryStatus;

  bool operator==(const AttributionBuildResult&) const = default;
};

/// The outcome of one attempted read of a source.
template <typename Value>
struct CommandLoadResult {
  std::optional<Value> output;
  bool commandOK = false;
  std::int64_t commandCount = 1;
};
struct PowermetricsLoadResult {
  std::optional<PowermetricsParseOutput> value;
  bool commandOK = false;
  std::int64_t commandCount = 1;
};

/// Puts together, once a sampling cycle, what an attribution pass needs: processes with their CPU share and
/// measured watts, modelled display and USB power, and the total to distribute with its source. A source that
/// fails is left out; nothing but a failing ps keeps a build from its result.
///
/// One build at a time. It blocks for as long as the tools run; its collaborators outlive it.
class LiveAttributionInputBuilder {
 public:
  static constexpr std::int64_t processSampleLimit = 1000;

  struct Collaborators {
    const ProcessSampler& processSampler;
    const PowermetricsCollecting& powermetricsCollector;
    const DisplayPowerEstimator& displayEstimator;
    const USBPowerEstimator& usbEstimator;
    const BatteryStatusCollecting& batteryCollector;
    RunningProcessMetadataLookup processMetadataResolver;
    RunningProcessMetadataCache& metadataCache;
    std::function<PointInTime()> nowProvider;
    ComponentProfiler& componentProfiler;
  };

  explicit LiveAttributionInputBuilder(Collaborators collaborators);

  /// @throws ShellRunnerError when the processes can't be listed
  AttributionInput build(std::vector<HiddenWorkloadMapping> hiddenMappings, bool developerMode) const;
  AttributionBuildResult buildWithMetadata(std::vector<HiddenWorkloadMapping> hiddenMappings,
                                           bool developerMode) const;

  /// The same on processes sampled before, in rank order. A pid that two powermetrics records carry is a
  /// fatal error.
  AttributionBuildResult buildWithMetadata(std::vector<ProcessSample> processSamples,
                                           std::vector<HiddenWorkloadMapping> hiddenMappings,
                                           const SamplingConfig& config) const;

  /// Puts the records' watts into the samples of the same pid, and appends a sample for every record of more
  /// than 0.01 W whose pid is not among them. Returns how many were appended.
  std::size_t merge(std::vector<ProcessSample>& samples, const PowermetricsParseOutput& output,
                    PointInTime now) const;

 private:
  PowermetricsLoadResult loadPowermetrics() const;
  CommandLoadResult<BatteryStatusSample> loadBatteryStatus() const;
  AttributionBuildResult buildTimed(std::vector<ProcessSample> processSamples,
                                    std::vector<HiddenWorkloadMapping> hiddenMappings,
                                    const SamplingConfig& config, const SpanOrigin& origin) const;
  ProcessSample powermetricsOnlySample(const PowermetricsProcessRecord& record, bool gpuFallback,
                                       PointInTime now) const;

  Collaborators with_;
};

}  // namespace quenzel
