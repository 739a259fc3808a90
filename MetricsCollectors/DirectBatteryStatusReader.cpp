#include "MetricsCollectors/DirectBatteryStatusReader.hpp"

#include <utility>

#include "MetricsCollectors/BatteryStatusRules.hpp"

namespace quenzel {
namespace {

using platform::PropertyDictionary;

/// Whether the machine runs on its adapter; none when the power source does not say.
std::optional<bool> runsOnAdapter(const PropertyDictionary& description) {
  const auto state = stringValue(description, "Power Source State");
  if (state == "AC Power") return true;
  if (state == "Battery Power") return false;
  return std::nullopt;
}

/// The power source sets the time that does not apply to 0.
std::optional<std::int64_t> minutesRemaining(const PropertyDictionary& description, bool isCharging) {
  const auto minutes = minutesValue(description, isCharging ? "Time to Full Charge" : "Time to Empty");
  return minutes && *minutes > 0 ? minutes : std::nullopt;
}

}  // namespace

DirectBatteryStatusReader::DirectBatteryStatusReader(std::unique_ptr<platform::BatteryRegistry> registry)
    : registry_(std::move(registry)) {}

double DirectBatteryStatusReader::resolveLevelPercent(std::optional<std::int64_t> displayCurrentCapacity,
                                                      std::optional<std::int64_t> displayMaxCapacity,
                                                      std::optional<std::int64_t> rawCurrentCapacityMah,
                                                      std::optional<std::int64_t> rawMaxCapacityMah,
                                                      bool isCharged) {
  const auto percentOf = [](std::int64_t part, std::int64_t whole) {
    return limitedToPercent(static_cast<double>(part) / static_cast<double>(whole) * 100);
  };
  const auto isPercent = [](std::int64_t value) { return value >= 0 && value <= 100; };

  if (isCharged) return 100;
  if (const auto current = displayCurrentCapacity) {
    if (displayMaxCapacity && *current >= 0 && *displayMaxCapacity >= 1)
      return percentOf(*current, *displayMaxCapacity);
    if (isPercent(*current)) return static_cast<double>(*current);
  }
  if (!rawCurrentCapacityMah) return 0;
  const std::int64_t raw = *rawCurrentCapacityMah;
  if (!rawMaxCapacityMah || *rawMaxCapacityMah < 1) return isPercent(raw) ? static_cast<double>(raw) : 0;
  return percentOf(raw, *rawMaxCapacityMah);
}

std::optional<BatteryStatusSample> DirectBatteryStatusReader::sample() {
  const MutexLock guard(lock_);
  const PropertyDictionary description =
      registry_->internalBatteryDescription().value_or(PropertyDictionary{});
  const auto properties = registry_->batteryProperties();
  if (!properties) return std::nullopt;
  const PropertyDictionary adapter = registry_->externalAdapterDetails().value_or(PropertyDictionary{});

  BatteryStatusSample sample = batteryStatusFromRegistry(*properties);
  const auto isCharged = boolValue(description, "Is Charged");
  sample.levelPercent =
      resolveLevelPercent(intValue(description, "Current Capacity"), intValue(description, "Max Capacity"),
                          sample.currentCapacityMah, sample.maxCapacityMah, isCharged.value_or(false));
  sample.isACPowered = runsOnAdapter(description);
  sample.externalPowerConnected =
      boolValue(*properties, "ExternalConnected").value_or(sample.isACPowered.value_or(false));
  if (!sample.fullyCharged) sample.fullyCharged = isCharged;
  sample.systemTimeRemainingMinutes = minutesRemaining(description, sample.isCharging);
  sample.adapterWatts = intValue(adapter, "Watts");
  sample.adapterName = stringValue(adapter, "Name");
  return sample;
}

}  // namespace quenzel
