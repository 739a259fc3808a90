#include "Engine/SamplingCycle.hpp"

#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "MetricsCollectors/BatteryStatusRules.hpp"
#include "MetricsCollectors/RunningProcessMetadataResolver.hpp"
#include "Platform/EnergyCounterAccess.hpp"
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
    } catch (const PowermetricsCollectorError& error) {
      const bool isRefusal = error.kind() == PowermetricsCollectorError::Kind::insufficientPrivileges;
      unavailable_.push_back({"powermetrics", error.what(), isRefusal});
      throw;
    }
  }

 private:
  PowermetricsCollector collector_;
  UnavailableSources& unavailable_;
};

/// A registry entry that stands for no battery.
struct NoBattery final : std::runtime_error {
  NoBattery() : std::runtime_error("this machine has none") {}
};

class NotingBatteryCollector final : public BatteryStatusCollecting {
 public:
  NotingBatteryCollector(const ShellRunning& shell, SamplingCycleResult& result)
      : collector_(shell), result_(result) {}
  BatteryStatusSample collectStatus() const override {
    try {
      return collectShownStatus();
    } catch (const NoBattery& none) {
      result_.hasBattery = false;
      result_.unavailable.push_back({"battery", none.what()});
      throw;
    } catch (const std::exception& error) {
      result_.unavailable.push_back({"battery", result_.hasBattery ? error.what() : NoBattery().what()});
      throw;
    }
  }

 private:
  BatteryStatusSample collectShownStatus() const {
    const platform::PropertyDictionary entry = collector_.collectEntry();
    if (!describesBattery(entry)) throw NoBattery();
    BatteryStatusSample status = BatteryStatusCollector::statusFrom(entry);
    dropPercentTakenForCharge(status, entry);
    BatteryStatusCollector::logStatus(status);
    result_.hasBattery = true;
    result_.batteryLevelKnown = tellsLevel(entry);
    return status;
  }

  BatteryStatusCollector collector_;
  SamplingCycleResult& result_;
};

/// The machine's registry without an entry that stands for no battery.
class InstalledBatteryRegistry final : public platform::BatteryRegistry {
 public:
  std::optional<platform::PropertyDictionary> batteryProperties() override {
    auto entry = registry_->batteryProperties();
    return entry && describesBattery(*entry) ? std::move(entry) : std::nullopt;
  }
  std::optional<platform::PropertyDictionary> internalBatteryDescription() override {
    return registry_->internalBatteryDescription();
  }
  std::optional<platform::PropertyDictionary> externalAdapterDetails() override {
    return registry_->externalAdapterDetails();
  }

 private:
  std::unique_ptr<platform::BatteryRegistry> registry_ = platform::makeBatteryRegistry();
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
    const auto refusal = platform::energyCounterRefusal();
    unavailable.push_back({"package power",
                           refusal.value_or("powermetrics reports no CPU, GPU or ANE power on this machine"),
                           refusal.has_value()});
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
    : shell_(shell), processSampler_(shell), directBattery_(std::make_unique<InstalledBatteryRegistry>()) {
  componentPower_.sample(now());  // primes it, so that the first cycle has a span to measure
}

SamplingCycleResult SamplingCycle::run() {
  SamplingCycleResult result;
  result.modelled = platform::modelledHardware();
  logModelled(result.modelled);
  const auto directReading = directBattery_.sample();
  result.hasBattery = directReading.has_value();
  // What the builder goes by when the tool can't read the battery. A machine without one runs on its supply,
  // whatever the configuration's default says.
  SamplingSettings settings;
  settings.isOnBatteryPower =
      directReading && !directReading->externalPowerConnected && !directReading->isCharging;

  const NotingPowermetricsCollector powermetrics(shell_, result.unavailable);
  const NotingBatteryCollector battery(shell_, result);
  const DisplayPowerEstimator display(smc_);
  const USBPowerEstimator usb(&smc_);
  const LiveAttributionInputBuilder builder(
      {processSampler_, powermetrics, display, usb, battery, RunningProcessMetadataResolver::resolve,
       RunningProcessMetadataCache::shared(), now, ComponentProfiler::shared()});
  ProcessSamplingReport sampled =
      processSampler_.sampleProcesses(LiveAttributionInputBuilder::processSampleLimit, false);
  if (sampled.unreadableRows > 0) {
    result.unavailable.push_back(
        {"processes", fmt::format("rows of ps that can't be read: {}", sampled.unreadableRows)});
  }
  result.build =
      builder.buildWithMetadata(std::move(sampled.snapshot.sampledProcesses), {}, SamplingConfig(settings));
  // A total that was added up from components is one on external power: one answer for total and context.
  result.onBattery = !result.build.metadata.usedEstimatedTotalPower;
  result.componentPower = componentPower_.sample(now());
  noteSilentSources(result.build.metadata, result.unavailable);
  return result;
}

std::string_view totalPowerSource(const AttributionBuildResult& build) {
  if (build.metadata.usedEstimatedTotalPower) return "PM-Package+Components";
  return build.input.totalDischargeW > 0 ? "IOKit" : "none";
}

}  // namespace quenzel
