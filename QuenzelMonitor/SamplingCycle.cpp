#include "QuenzelMonitor/SamplingCycle.hpp"

#include <exception>
#include <utility>

#include "MetricsCollectors/RunningProcessMetadataResolver.hpp"

namespace quenzel {
namespace {

using UnavailableSources = std::vector<UnavailableSource>;

/// Calls the collector and passes its result or its failure on, noting the failure for the report: the
/// builder goes on without the source, and the user should know why.
template <typename Collect>
auto noting(UnavailableSources& unavailable, const char* source, Collect collect) {
  try {
    return collect();
  } catch (const std::exception& error) {
    unavailable.push_back({source, error.what()});
    throw;
  }
}

class NotingPowermetricsCollector final : public PowermetricsCollecting {
 public:
  NotingPowermetricsCollector(const ShellRunning& shell, UnavailableSources& unavailable)
      : collector_(shell), unavailable_(unavailable) {}
  PowermetricsParseOutput collectNormalizedSample() const override {
    return noting(unavailable_, "powermetrics", [&] { return collector_.collectNormalizedSample(); });
  }

 private:
  PowermetricsCollector collector_;
  UnavailableSources& unavailable_;
};

class NotingBatteryCollector final : public BatteryStatusCollecting {
 public:
  NotingBatteryCollector(const ShellRunning& shell, UnavailableSources& unavailable)
      : collector_(shell), unavailable_(unavailable) {}
  BatteryStatusSample collectStatus() const override {
    return noting(unavailable_, "battery", [&] { return collector_.collectStatus(); });
  }

 private:
  BatteryStatusCollector collector_;
  UnavailableSources& unavailable_;
};

void noteSilentSources(const AttributionBuildMetadata& metadata, UnavailableSources& unavailable) {
  if (metadata.powermetricsCommandOK && !metadata.powermetricsHasPackagePower) {
    unavailable.push_back({"package power", "powermetrics reports no CPU, GPU or ANE power on this machine"});
  }
  if (!metadata.screenModelAvailable) {
    unavailable.push_back({"display power", "the System Management Controller gives no reading"});
  }
  if (!metadata.usbModelAvailable) {
    unavailable.push_back({"USB power", "the System Management Controller gives no reading"});
  }
}

}  // namespace

SamplingCycle::SamplingCycle(const ShellRunning& shell)
    : shell_(shell), processSampler_(shell), directBattery_(platform::makeBatteryRegistry()) {}

/// A machine without a battery runs on its supply, whatever the configuration's default says.
SamplingConfig SamplingCycle::currentConfig() {
  const auto battery = directBattery_.sample();
  SamplingSettings settings;
  settings.isOnBatteryPower = battery && !battery->externalPowerConnected && !battery->isCharging;
  return SamplingConfig(settings);
}

SamplingCycleResult SamplingCycle::run() {
  SamplingCycleResult result;
  const NotingPowermetricsCollector powermetrics(shell_, result.unavailable);
  const NotingBatteryCollector battery(shell_, result.unavailable);
  const DisplayPowerEstimator display(smc_);
  const USBPowerEstimator usb(&smc_);
  const LiveAttributionInputBuilder builder(
      {processSampler_, powermetrics, display, usb, battery,
       [](std::int32_t pid) { return RunningProcessMetadataResolver::shared().resolve(pid); },
       RunningProcessMetadataCache::shared(), now, ComponentProfiler::shared()});
  result.build = builder.buildWithMetadata(
      processSampler_.sampleTopProcesses(LiveAttributionInputBuilder::processSampleLimit), {},
      currentConfig());
  result.modelled = platform::modelledHardware();
  noteSilentSources(result.build.metadata, result.unavailable);
  return result;
}

std::string_view totalPowerSource(const AttributionBuildResult& build) {
  if (build.metadata.usedEstimatedTotalPower) return "PM-Package+Components";
  return build.input.totalDischargeW > 0 ? "IOKit" : "none";
}

}  // namespace quenzel
