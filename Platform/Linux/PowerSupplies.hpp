#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quenzel::platform {

// The machine's batteries and adapters as /sys/class/power_supply shows them (Documentation/ABI/testing/
// sysfs-class-power of the kernel), brought to mA, mV and mAh. A field that a driver does not report is
// absent.

enum class BatteryState { unknown, charging, discharging, notCharging, full };

/// One battery at one instant. Values beyond any battery's count as not reported.
///
/// A battery that counts energy (µWh, µW) is brought to charge and current through its present voltage, so
/// that capacity times voltage is the energy that it reported.
struct BatteryReading {
  BatteryState state = BatteryState::unknown;
  std::optional<std::int64_t> levelPercent;  ///< 0 to 100
  std::optional<double> voltageMV;
  /// Negative while discharging, positive while charging; 0 below 50 mA when the battery is full or does not
  /// charge, else with the driver's sign. averageCurrentMa likewise.
  std::optional<double> currentMa;
  std::optional<double> averageCurrentMa;
  std::optional<double> chargeMah;         ///< where no counter tells it: the level's part of a full charge
  std::optional<double> fullChargeMah;     ///< what a full charge holds today
  std::optional<double> designChargeMah;   ///< what it held when new
  std::optional<std::int64_t> cycleCount;  ///< never 0: drivers write 0 for a count that they don't know
  std::optional<std::int64_t> temperatureCentiC;
  // Times are never 0 as a driver reports them: drivers write 0 for a time that they don't know.
  std::optional<std::int64_t> minutesToEmpty;         ///< at the present rate
  std::optional<std::int64_t> averageMinutesToEmpty;  ///< at the average rate
  std::optional<std::int64_t> minutesToFull;
  std::optional<std::int64_t> averageMinutesToFull;
  std::optional<std::string> serialNumber;
  std::optional<std::string> deviceName;

  bool operator==(const BatteryReading&) const = default;
};

/// A supply from outside: a mains adapter, a USB or wireless charger.
struct ExternalSupply {
  bool online = false;
  std::optional<std::int64_t> watts;  ///< the most that it offers
  std::optional<std::string> name;

  bool operator==(const ExternalSupply&) const = default;
};

struct PowerSupplies {
  std::vector<BatteryReading> batteries;
  std::vector<ExternalSupply> externalSupplies;
};

/// Reads every supply of the machine, in the order of their names. Batteries of attached devices (a mouse, a
/// phone), uninterruptible supplies and empty battery bays are left out; so is an entry that tells neither a
/// voltage nor how full it is. Some thirty small reads a battery.
PowerSupplies readPowerSupplies(const std::string& sysfsRoot);

/// Several batteries as one, none for no battery. Voltage and identity are the first one's; charges and
/// currents are sums of what each is worth at that voltage, so that energy and power come out right; the
/// highest cycle count and temperature speak for all; times are left out, since none of the drivers knows the
/// other battery. The level is that of the sums, else the mean of the levels. A sum or mean that one of them
/// can't contribute to is absent.
std::optional<BatteryReading> combinedBattery(const std::vector<BatteryReading>& batteries);

/// Fills in the times that the driver does not report, which is most drivers: the charge over the current
/// that takes it, or the missing charge over the one that brings it.
BatteryReading withComputedTimes(BatteryReading battery);

}  // namespace quenzel::platform
