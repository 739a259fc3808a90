#include "Platform/Linux/PowerSupplies.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Platform/Linux/KernelFiles.hpp"

namespace quenzel::platform {
namespace {

constexpr double microPerMilli = 1000;

/// Beyond it no attribute means anything: a million volts, amperes or watt-hours in their micro-units.
constexpr std::int64_t largestValue = 1'000'000'000'000;

/// A battery gauge counts minutes in 16 bits, and its highest count means "unknown".
constexpr std::int64_t unknownMinutes = 65535;

/// What a resting battery may show without charging or discharging: noise of its gauge.
constexpr double restingCurrentMa = 50;

/// The attribute files of one supply.
class Attributes {
 public:
  explicit Attributes(std::string folder) : folder_(std::move(folder)) {}

  std::optional<std::string> text(const char* name) const { return fileValue(folder_ + '/' + name); }
  std::optional<std::int64_t> integer(const char* name) const {
    const std::optional<std::int64_t> value = fileInteger(folder_ + '/' + name);
    return value && *value >= -largestValue && *value <= largestValue ? value : std::nullopt;
  }

  std::optional<double> milli(const char* microName) const {
    const std::optional<std::int64_t> micro = integer(microName);
    return micro ? std::optional(static_cast<double>(*micro) / microPerMilli) : std::nullopt;
  }

  /// The charge or current, else the energy or power by the voltage: µWh divided by mV is mAh.
  std::optional<double> milliOrByVoltage(const char* name, const char* energyName,
                                         std::optional<double> voltageMV) const {
    if (const auto direct = milli(name)) return direct;
    const std::optional<std::int64_t> energy = integer(energyName);
    if (!energy || !voltageMV) return std::nullopt;
    return static_cast<double>(*energy) / *voltageMV;
  }

  std::optional<std::int64_t> minutes(const char* secondsName) const {
    const std::optional<std::int64_t> seconds = integer(secondsName);
    return seconds && *seconds > 0 && *seconds / 60 < unknownMinutes ? std::optional(*seconds / 60)
                                                                     : std::nullopt;
  }

 private:
  std::string folder_;
};

BatteryState batteryState(const std::optional<std::string>& status) {
  if (status == "Charging") return BatteryState::charging;
  if (status == "Discharging") return BatteryState::discharging;
  if (status == "Not charging") return BatteryState::notCharging;
  if (status == "Full") return BatteryState::full;
  return BatteryState::unknown;
}

/// Drivers disagree about the sign of a current, the status does not. A battery that rests has none, but for
/// a current that is clearly there: then the driver is all that tells its sign.
std::optional<double> signedCurrent(std::optional<double> current, BatteryState state) {
  if (!current) return std::nullopt;
  if (state == BatteryState::discharging) return -std::abs(*current);
  if (state == BatteryState::charging) return std::abs(*current);
  const bool resting = state == BatteryState::notCharging || state == BatteryState::full;
  return resting && std::abs(*current) < restingCurrentMa ? 0 : current;
}

std::optional<std::int64_t> percentOf(std::optional<double> part, std::optional<double> whole) {
  if (!part || !whole || *whole <= 0) return std::nullopt;
  return std::llround(std::clamp(*part / *whole, 0.0, 1.0) * 100);
}

std::optional<double> positive(std::optional<double> value) {
  return value && *value > 0 ? value : std::nullopt;
}

/// How long a charge lasts, or takes, at that rate.
std::optional<std::int64_t> minutesFor(std::optional<double> chargeMah, std::optional<double> currentMa) {
  if (!chargeMah || !currentMa || *chargeMah < 0 || *currentMa == 0) return std::nullopt;
  const double minutes = *chargeMah / std::abs(*currentMa) * 60;
  return minutes < static_cast<double>(unknownMinutes) ? std::optional(static_cast<std::int64_t>(minutes))
                                                       : std::nullopt;
}

BatteryReading readBattery(const Attributes& attributes) {
  BatteryReading battery;
  battery.state = batteryState(attributes.text("status"));
  battery.voltageMV = positive(attributes.milli("voltage_now"));
  const std::optional<double> voltage =
      battery.voltageMV ? battery.voltageMV : positive(attributes.milli("voltage_min_design"));
  const auto charge = [&](const char* name, const char* energyName) {
    return attributes.milliOrByVoltage(name, energyName, voltage);
  };
  battery.chargeMah = charge("charge_now", "energy_now");
  battery.fullChargeMah = charge("charge_full", "energy_full");
  battery.designChargeMah = charge("charge_full_design", "energy_full_design");
  battery.currentMa = signedCurrent(charge("current_now", "power_now"), battery.state);
  battery.averageCurrentMa = signedCurrent(charge("current_avg", "power_avg"), battery.state);
  if (!battery.chargeMah) battery.chargeMah = positive(attributes.milli("charge_counter"));
  if (const auto level = attributes.integer("capacity")) {
    battery.levelPercent = std::clamp<std::int64_t>(*level, 0, 100);
    if (!battery.chargeMah && battery.fullChargeMah)
      battery.chargeMah = *battery.fullChargeMah * static_cast<double>(*battery.levelPercent) / 100;
  } else {
    battery.levelPercent = percentOf(battery.chargeMah, battery.fullChargeMah);
  }
  battery.cycleCount = attributes.integer("cycle_count");
  if (battery.cycleCount && *battery.cycleCount <= 0) battery.cycleCount.reset();
  if (const auto tenthsOfDegree = attributes.integer("temp"))
    battery.temperatureCentiC = *tenthsOfDegree * 10;
  battery.minutesToEmpty = attributes.minutes("time_to_empty_now");
  battery.averageMinutesToEmpty = attributes.minutes("time_to_empty_avg");
  battery.minutesToFull = attributes.minutes("time_to_full_now");
  battery.averageMinutesToFull = attributes.minutes("time_to_full_avg");
  battery.serialNumber = attributes.text("serial_number");
  battery.deviceName = attributes.text("model_name");
  return battery;
}

/// An entry that tells neither a voltage nor how full it is stands for an empty bay.
bool isThere(const BatteryReading& battery) {
  return battery.voltageMV || battery.levelPercent || battery.chargeMah;
}

ExternalSupply readExternalSupply(const Attributes& attributes) {
  ExternalSupply supply{.online = attributes.integer("online").value_or(0) != 0,
                        .watts = std::nullopt,
                        .name = attributes.text("model_name")};
  const std::optional<double> volts = positive(attributes.milli("voltage_max"));
  const std::optional<double> amperes = positive(attributes.milli("current_max"));
  if (volts && amperes) supply.watts = std::llround(*volts / 1000 * *amperes / 1000);
  return supply;
}

/// Adds one battery's share, expressed at another voltage.
void addAtVoltage(std::optional<double>& sum, std::optional<double> share, double voltageRatio) {
  sum = sum && share ? std::optional(*sum + *share * voltageRatio) : std::nullopt;
}

std::optional<std::int64_t> meanLevel(const std::vector<BatteryReading>& batteries) {
  std::int64_t levels = 0;
  for (const BatteryReading& battery : batteries) {
    if (!battery.levelPercent) return std::nullopt;
    levels += *battery.levelPercent;
  }
  return levels / static_cast<std::int64_t>(batteries.size());
}

BatteryState combinedState(const std::vector<BatteryReading>& batteries) {
  const auto is = [](BatteryState state) {
    return [state](const BatteryReading& battery) { return battery.state == state; };
  };
  for (const BatteryState state : {BatteryState::discharging, BatteryState::charging}) {
    if (std::any_of(batteries.begin(), batteries.end(), is(state))) return state;
  }
  for (const BatteryState state : {BatteryState::full, BatteryState::unknown}) {
    if (std::all_of(batteries.begin(), batteries.end(), is(state))) return state;
  }
  return BatteryState::notCharging;
}

}  // namespace

PowerSupplies readPowerSupplies(const std::string& sysfsRoot) {
  PowerSupplies supplies;
  const std::string folder = sysfsRoot + "/class/power_supply";
  for (const std::string& name : folderEntries(folder)) {
    const Attributes attributes(folder + '/' + name);
    const std::optional<std::string> type = attributes.text("type");
    if (!type || type == "UPS" || attributes.text("scope") == "Device") continue;
    if (type != "Battery") {
      supplies.externalSupplies.push_back(readExternalSupply(attributes));
    } else if (attributes.integer("present") != 0) {
      BatteryReading battery = readBattery(attributes);
      if (isThere(battery)) supplies.batteries.push_back(std::move(battery));
    }
  }
  return supplies;
}

std::optional<BatteryReading> combinedBattery(const std::vector<BatteryReading>& batteries) {
  if (batteries.empty()) return std::nullopt;
  BatteryReading all = batteries.front();
  if (batteries.size() == 1) return all;
  all.state = combinedState(batteries);
  for (auto battery = batteries.begin() + 1; battery != batteries.end(); ++battery) {
    const double ratio = battery->voltageMV && all.voltageMV ? *battery->voltageMV / *all.voltageMV : 1;
    for (const auto field :
         {&BatteryReading::chargeMah, &BatteryReading::fullChargeMah, &BatteryReading::designChargeMah,
          &BatteryReading::currentMa, &BatteryReading::averageCurrentMa}) {
      addAtVoltage(all.*field, (*battery).*field, ratio);
    }
    all.cycleCount = std::max(all.cycleCount, battery->cycleCount);
    all.temperatureCentiC = std::max(all.temperatureCentiC, battery->temperatureCentiC);
  }
  all.levelPercent = percentOf(all.chargeMah, all.fullChargeMah);
  if (!all.levelPercent) all.levelPercent = meanLevel(batteries);
  all.minutesToEmpty.reset();
  all.averageMinutesToEmpty.reset();
  all.minutesToFull.reset();
  all.averageMinutesToFull.reset();
  return all;
}

BatteryReading withComputedTimes(BatteryReading battery) {
  const auto fill = [](std::optional<std::int64_t>& minutes, std::optional<double> chargeMah,
                       std::optional<double> currentMa) {
    if (!minutes) minutes = minutesFor(chargeMah, currentMa);
  };
  if (battery.state == BatteryState::discharging) {
    fill(battery.minutesToEmpty, battery.chargeMah, battery.currentMa);
    fill(battery.averageMinutesToEmpty, battery.chargeMah, battery.averageCurrentMa);
  } else if (battery.state == BatteryState::charging && battery.chargeMah && battery.fullChargeMah) {
    const double missingMah = *battery.fullChargeMah - *battery.chargeMah;
    fill(battery.minutesToFull, missingMah, battery.currentMa);
    fill(battery.averageMinutesToFull, missingMah, battery.averageCurrentMa);
  }
  return battery;
}

}  // namespace quenzel::platform
