#include "QuenzelMonitor/SamplingCycle.hpp"

#include <exception>
#include <utility>

#include <fmt/format.h>

#include "MetricsCollectors/RunningProcessMetadataResolver.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"

namespace quenzel {
namespace {

using UnavailableSources = std::vector<UnavailableSource>;

// The builder goes on without a source that fails; these note why it failed, for the report.

class NotingPowermetricsCollector final : public PowermetricsCollecting {
 public:
  NotingPowermetricsCollector(const ShellRunning& shell, UnavailableSources& unavailable)
      : collector_(shell), unavailable_(unavailable) {}
  PowermetricsParseOutput collectNormalizedSample() const override {
    try {
      return collector_.collectNormalizedSample();
    } catch (const std::exception& error) {
      unavailable_.push_back({"powermetrics", error.what()});
      throw;
    }
  }

 private:
  PowermetricsCollector collector_;
  UnavailableSources& unavailable_;
};

class NotingBatteryCollector final : public BatteryStatusCollecting {
 public:
  NotingBatteryCollector(const ShellRunning& shell, UnavailableSources& unavailable, bool hasBattery)
      : collector_(shell), unavailable_(unavailable), hasBattery_(hasBattery) {}
  BatteryStatusSample collectStatus() const override {
    try {
      return collector_.collectStatus();
    } catch (const std::exception& error) {
      unavailable_.push_back({"battery", hasBattery_ ? error.what() : "this machine has none"});
      throw;
    }
  }

 private:
  BatteryStatusCollector collector_;
  UnavailableSources& unavailable_;
  bool hasBattery_;
};

/// The log's own lines have no room for a mark on each figure.
void logModelled(const platform::ModelledHardware& modelled) {
  if (!modelled.any()) return;
  RuntimeLog::info("SamplingCycle", fmt::format("the figures of this cycle are modelled, not measured:{}{}",
                                                modelled.battery ? " battery" : "",
                                                modelled.powerCounters ? " power counters" : ""));
}

void noteSilentSources(const AttributionBuildMetadata& metadata, UnavailableSources& unavailable) {
  if (metadata.powermetricsCommandOK && !metadata.powermetricsHasPackagePower) {
    unavailable.push_back({"package power", "powermetrics reports no CPU, GPU or ANE power on this machine"});
  }
  if (!metadata.screenModelAvailable) {
    unavailable.push_back({"display power", "the System Management Controller gives no reading above 0 W"});
  }
  if (!metadata.usbModelAvailable) {
    unavailable.push_back({"USB power", "the System Management Controller gives no reading above 0 W"});
  }
}

}  // namespace

SamplingCycle::SamplingCycle(const ShellRunning& shell)
    : shell_(shell), processSampler_(shell), directBattery_(platform::makeBatteryRegistry()) {
  componentPower_.sample(now());  // primes it, so that the first cycle has a span to measure
}

SamplingCycleResult SamplingCycle::run() {
  SamplingCycleResult result;
  result.modelled = platform::modelledHardware();
  logModelled(result.modelled);
  const auto directReading = directBattery_.sample();
  result.hasBattery = directReading.has_value();
  // A machine without a battery runs on its supply, whatever the configuration's default says.
  result.onBattery = directReading && !directReading->externalPowerConnected && !directReading->isCharging;

  const NotingPowermetricsCollector powermetrics(shell_, result.unavailable);
  const NotingBatteryCollector battery(shell_, result.unavailable, result.hasBattery);
  const DisplayPowerEstimator display(smc_);
  const USBPowerEstimator usb(&smc_);
  const LiveAttributionInputBuilder builder(
      {processSampler_, powermetrics, display, usb, battery,
       [](std::int32_t pid) { return RunningProcessMetadataResolver::shared().resolve(pid); },
       RunningProcessMetadataCache::shared(), now, ComponentProfiler::shared()});
  SamplingSettings settings;
  settings.isOnBatteryPower = result.onBattery;
  result.build = builder.buildWithMetadata(
      processSampler_.sampleTopProcesses(LiveAttributionInputBuilder::processSampleLimit), {},
      SamplingConfig(settings));
  result.componentPower = componentPower_.sample(now());
  noteSilentSources(result.build.metadata, result.unavailable);
  return result;
}

std::string_view totalPowerSource(const AttributionBuildResult& build) {
  if (build.metadata.usedEstimatedTotalPower) return "PM-Package+Components";
  return build.input.totalDischargeW > 0 ? "IOKit" : "none";
}

}  // namespace quenzel
