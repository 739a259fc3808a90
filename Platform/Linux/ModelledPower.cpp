#include "Platform/Linux/ModelledPower.hpp"

#include <algorithm>
#include <cmath>

namespace quenzel::platform {
namespace {

constexpr double packageIdleW = 0.8;
constexpr double packageBusyW = 15.0;
constexpr double memoryIdleW = 0.4;
constexpr double memoryBusyW = 1.6;
constexpr double restW = 4.0;
constexpr double chargingW = 30.0;

constexpr double voltageMV = 11400;
constexpr double designMah = 5000;
constexpr double fullMah = 4560;
constexpr double fullWh = fullMah * voltageMV / 1e6;
constexpr double startLevel = 0.80;  // charging ends here, too
constexpr double chargeLevel = 0.05;

constexpr double secondsPerHour = 3600;
constexpr double microjoulesPerJoule = 1e6;

// What no machine reaches, centuries of running and of full load, and adding to it can't overflow.
constexpr double longestUptimeSeconds = 1e10;
constexpr std::int64_t mostMicrojoules = 1'000'000'000'000'000'000;

bool isPossibleEnergy(std::int64_t microjoules) { return microjoules >= 0 && microjoules <= mostMicrojoules; }

double between(double idle, double busy, double busyFraction) {
  return idle + (busy - idle) * std::clamp(busyFraction, 0.0, 1.0);
}

double memoryWatts(double busyFraction) { return between(memoryIdleW, memoryBusyW, busyFraction); }

double fraction(std::int64_t part, std::int64_t whole) {
  return whole > 0 ? std::clamp(static_cast<double>(part) / static_cast<double>(whole), 0.0, 1.0) : 0;
}

bool continues(const MachineActivity& former, const MachineActivity& now) {
  return former.bootID == now.bootID && former.uptimeSeconds <= now.uptimeSeconds &&
         former.busyTicks <= now.busyTicks && former.totalTicks <= now.totalTicks;
}

ModelledHardwareState freshState() {
  ModelledHardwareState state;
  state.remainingWh = fullWh * startLevel;
  return state;
}

ModelledHardwareState restarted(ModelledHardwareState state, const MachineActivity& activity) {
  state.activity = activity;
  state.busyFraction = fraction(activity.busyTicks, activity.totalTicks);
  return state;
}

void advanceBattery(ModelledHardwareState& state, double hours) {
  const double watts = state.charging ? chargingW : -modelledSystemWatts(state.busyFraction);
  const double lowest = fullWh * chargeLevel;
  const double highest = fullWh * startLevel;
  state.remainingWh = std::clamp(state.remainingWh + watts * hours, lowest, highest);
  if (state.remainingWh <= lowest) state.charging = true;
  if (state.remainingWh >= highest) state.charging = false;
}

template <typename T>
const T* entry(const PropertyDictionary& list, const char* key) {
  const PropertyValue* const value = find(list, key);
  return value ? value->as<T>() : nullptr;
}

/// Copies every entry to its field; false when one is missing or of another type.
template <typename T>
bool read(const PropertyDictionary& list, const char* key, T& field) {
  const T* const value = entry<T>(list, key);
  if (value) field = *value;
  return value != nullptr;
}

}  // namespace

double modelledPackageWatts(double busyFraction) { return between(packageIdleW, packageBusyW, busyFraction); }

double modelledSystemWatts(double busyFraction) {
  return modelledPackageWatts(busyFraction) + memoryWatts(busyFraction) + restW;
}

ModelledHardwareState advancedState(const std::optional<ModelledHardwareState>& former,
                                    const MachineActivity& activity) {
  if (!former) return restarted(freshState(), activity);
  if (!continues(former->activity, activity)) return restarted(*former, activity);
  const double seconds = activity.uptimeSeconds - former->activity.uptimeSeconds;
  if (seconds < modelledRefreshSeconds) return *former;

  ModelledHardwareState state = *former;
  state.activity = activity;
  state.busyFraction = fraction(activity.busyTicks - former->activity.busyTicks,
                                activity.totalTicks - former->activity.totalTicks);
  const double package = modelledPackageWatts(state.busyFraction) * seconds * microjoulesPerJoule;
  const double memory = memoryWatts(state.busyFraction) * seconds * microjoulesPerJoule;
  state.packageMicrojoules += std::llround(package);
  state.memoryMicrojoules += std::llround(memory);
  advanceBattery(state, seconds / secondsPerHour);
  return state;
}

BatteryReading modelledBattery(const ModelledHardwareState& state) {
  const double watts = state.charging ? chargingW : modelledSystemWatts(state.busyFraction);
  const double leftWh = state.charging ? fullWh * startLevel - state.remainingWh : state.remainingWh;
  const auto minutes = static_cast<std::int64_t>(leftWh / watts * 60);
  BatteryReading battery;
  battery.state = state.charging ? BatteryState::charging : BatteryState::discharging;
  battery.levelPercent = std::llround(state.remainingWh / fullWh * 100);
  battery.voltageMV = voltageMV;
  battery.currentMa = (state.charging ? watts : -watts) * 1e6 / voltageMV;
  battery.chargeMah = state.remainingWh * 1e6 / voltageMV;
  battery.fullChargeMah = fullMah;
  battery.designChargeMah = designMah;
  (state.charging ? battery.minutesToFull : battery.minutesToEmpty) = minutes;
  battery.serialNumber = "MODELLED";
  battery.deviceName = "Modelled battery";
  return battery;
}

PropertyValue encodeModelledHardware(const ModelledHardwareState& state) {
  return PropertyDictionary{{"BootID", state.activity.bootID},
                            {"UptimeSeconds", state.activity.uptimeSeconds},
                            {"BusyTicks", state.activity.busyTicks},
                            {"TotalTicks", state.activity.totalTicks},
                            {"BusyFraction", state.busyFraction},
                            {"RemainingWh", state.remainingWh},
                            {"Charging", state.charging},
                            {"PackageMicrojoules", state.packageMicrojoules},
                            {"MemoryMicrojoules", state.memoryMicrojoules},
                            {"LowPowerMode", state.lowPowerMode}};
}

std::optional<ModelledHardwareState> decodeModelledHardware(const PropertyDictionary& list) {
  ModelledHardwareState state;
  const bool complete =
      read(list, "BootID", state.activity.bootID) &&
      read(list, "UptimeSeconds", state.activity.uptimeSeconds) &&
      read(list, "BusyTicks", state.activity.busyTicks) &&
      read(list, "TotalTicks", state.activity.totalTicks) && read(list, "BusyFraction", state.busyFraction) &&
      read(list, "RemainingWh", state.remainingWh) && read(list, "Charging", state.charging) &&
      read(list, "PackageMicrojoules", state.packageMicrojoules) &&
      read(list, "MemoryMicrojoules", state.memoryMicrojoules) &&
      read(list, "LowPowerMode", state.lowPowerMode);
  // Comparisons that a NaN fails, too: the file lies where every user can write.
  const bool possible =
      state.activity.uptimeSeconds >= 0 && state.activity.uptimeSeconds <= longestUptimeSeconds &&
      state.activity.busyTicks >= 0 && state.activity.totalTicks >= 0 && state.busyFraction >= 0 &&
      state.busyFraction <= 1 && state.remainingWh >= 0 && state.remainingWh <= fullWh &&
      isPossibleEnergy(state.packageMicrojoules) && isPossibleEnergy(state.memoryMicrojoules);
  return complete && possible ? std::optional(state) : std::nullopt;
}

}  // namespace quenzel::platform
