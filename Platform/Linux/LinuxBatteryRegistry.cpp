#include <cmath>
#include <utility>

#include "Platform/BatteryRegistry.hpp"
#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/Linux/ModelledHardware.hpp"
#include "Platform/Linux/PowerSupplies.hpp"

namespace quenzel::platform {
namespace {

/// The machine's power at one instant, its batteries taken together.
struct PowerReading {
  std::optional<BatteryReading> battery;
  std::vector<ExternalSupply> externalSupplies;
};

PowerReading readPower() {
  PowerSupplies supplies = readPowerSupplies(sysfsRoot());
  PowerReading power{combinedBattery(supplies.batteries), std::move(supplies.externalSupplies)};
  if (power.battery) power.battery = withComputedTimes(std::move(*power.battery));
  if (!power.battery && modelsHardware()) {
    power.battery = modelledBattery(readModelledHardware());
    power.externalSupplies.clear();  // the model's own adapter is the one that its battery hangs on
  }
  return power;
}

/// Whether the machine runs on outside power. Where no outside supply is listed the battery tells.
std::optional<bool> externalConnected(const PowerReading& power) {
  for (const ExternalSupply& supply : power.externalSupplies) {
    if (supply.online) return true;
  }
  if (!power.externalSupplies.empty()) return false;
  if (!power.battery || power.battery->state == BatteryState::unknown) return std::nullopt;
  return power.battery->state != BatteryState::discharging;
}

/// Writes present values under their keys.
class DictionaryWriter {
 public:
  template <typename Value>
  void set(const char* key, const std::optional<Value>& value) {
    if (value) entries_.insert_or_assign(key, PropertyValue(*value));
  }
  void setRounded(const char* key, std::optional<double> value) {
    // What only a driver's nonsense can come to is left out; it would not fit an integer.
    if (value && std::abs(*value) <= 1e12) set(key, std::optional<std::int64_t>(std::llround(*value)));
  }
  /// A charge in mAh. One that nobody knows is said to be unknown instead of left out: a reader that misses
  /// the key would take the level in percent, which stands beside it, for a charge.
  void setCharge(const char* key, std::optional<double> chargeMah) {
    set(key, std::optional<std::string>("unknown"));
    setRounded(key, chargeMah);
  }
  PropertyDictionary take() { return std::move(entries_); }

 private:
  PropertyDictionary entries_;
};

std::optional<PropertyDictionary> adapterDetails(const std::vector<ExternalSupply>& supplies) {
  for (const ExternalSupply& supply : supplies) {
    if (!supply.online || (!supply.watts && !supply.name)) continue;
    DictionaryWriter details;
    details.set("Watts", supply.watts);
    details.set("Name", supply.name);
    return details.take();
  }
  return std::nullopt;
}

/// The level is told in percent; without one there is nothing to compare.
std::optional<std::int64_t> fullLevel(const BatteryReading& battery) {
  return battery.levelPercent ? std::optional<std::int64_t>(100) : std::nullopt;
}

std::optional<std::int64_t> either(std::optional<std::int64_t> first, std::optional<std::int64_t> second) {
  return first ? first : second;
}

PropertyDictionary registryProperties(const PowerReading& power) {
  const BatteryReading& battery = *power.battery;
  const bool charging = battery.state == BatteryState::charging;
  DictionaryWriter properties;
  properties.set("CurrentCapacity", battery.levelPercent);
  properties.set("MaxCapacity", fullLevel(battery));
  properties.setCharge("AppleRawCurrentCapacity", battery.chargeMah);
  properties.setCharge("AppleRawMaxCapacity", battery.fullChargeMah);
  properties.setRounded("DesignCapacity", battery.designChargeMah);
  properties.setRounded("Voltage", battery.voltageMV);
  properties.setRounded("Amperage", battery.averageCurrentMa ? battery.averageCurrentMa : battery.currentMa);
  properties.setRounded("InstantAmperage", battery.currentMa);
  properties.set("IsCharging", std::optional(charging));
  properties.set("FullyCharged", std::optional(battery.state == BatteryState::full));
  properties.set("ExternalConnected", externalConnected(power));
  properties.set("CycleCount", battery.cycleCount);
  properties.set("Temperature", battery.temperatureCentiC);
  properties.set("Serial", battery.serialNumber);
  properties.set("DeviceName", battery.deviceName);
  properties.set("AvgTimeToEmpty", either(battery.averageMinutesToEmpty, battery.minutesToEmpty));
  properties.set("AvgTimeToFull", either(battery.averageMinutesToFull, battery.minutesToFull));
  properties.set("TimeToFull", either(battery.minutesToFull, battery.averageMinutesToFull));
  properties.set("TimeRemaining", charging ? either(battery.minutesToFull, battery.averageMinutesToFull)
                                           : either(battery.minutesToEmpty, battery.averageMinutesToEmpty));
  properties.set("AdapterDetails", adapterDetails(power.externalSupplies));
  return properties.take();
}

PropertyDictionary powerSourceDescription(const PowerReading& power) {
  const BatteryReading& battery = *power.battery;
  const bool charging = battery.state == BatteryState::charging;
  const std::optional<bool> external = externalConnected(power);
  DictionaryWriter description;
  description.set("Type", std::optional<std::string>("InternalBattery"));
  description.set("Current Capacity", battery.levelPercent);
  description.set("Max Capacity", fullLevel(battery));
  description.set("Is Charging", std::optional(charging));
  // As the original: said only where it can be true, that is on outside power and not charging.
  if (external == true && !charging) {
    description.set("Is Charged", std::optional(battery.state == BatteryState::full));
  }
  if (external) {
    description.set("Power Source State",
                    std::optional<std::string>(*external ? "AC Power" : "Battery Power"));
  }
  if (external == false) {
    description.set("Time to Empty", either(battery.averageMinutesToEmpty, battery.minutesToEmpty));
  }
  if (charging) {
    description.set("Time to Full Charge", either(battery.averageMinutesToFull, battery.minutesToFull));
  }
  return description.take();
}

class LinuxBatteryRegistry final : public BatteryRegistry {
 public:
  std::optional<PropertyDictionary> batteryProperties() override {
    const PowerReading power = readPower();
    return power.battery ? std::optional(registryProperties(power)) : std::nullopt;
  }

  std::optional<PropertyDictionary> internalBatteryDescription() override {
    const PowerReading power = readPower();
    return power.battery ? std::optional(powerSourceDescription(power)) : std::nullopt;
  }

  std::optional<PropertyDictionary> externalAdapterDetails() override {
    return adapterDetails(readPower().externalSupplies);
  }
};

}  // namespace

std::unique_ptr<BatteryRegistry> makeBatteryRegistry() { return std::make_unique<LinuxBatteryRegistry>(); }

}  // namespace quenzel::platform
