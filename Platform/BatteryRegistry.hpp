#pragma once

#include <memory>
#include <optional>

#include "Platform/PropertyValue.hpp"

namespace quenzel::platform {

/// The properties of the battery's service that readers look at. The service has several times as many, some
/// of them large; macOS copies only these out of the kernel, cycle by cycle.
inline constexpr const char* batteryPropertyNames[] = {"AppleRawCurrentCapacity",
                                                       "CurrentCapacity",
                                                       "AppleRawMaxCapacity",
                                                       "MaxCapacity",
                                                       "Voltage",
                                                       "Amperage",
                                                       "InstantAmperage",
                                                       "IsCharging",
                                                       "CycleCount",
                                                       "Temperature",
                                                       "DesignCapacity",
                                                       "NominalChargeCapacity",
                                                       "DesignCycleCount9C",
                                                       "Serial",
                                                       "BatterySerialNumber",
                                                       "DeviceName",
                                                       "FullyCharged",
                                                       "ExternalConnected",
                                                       "BatteryInstalled"};

/// The internal battery as the system's registry, its list of power sources and its adapter record describe
/// it, under the registry's own key names and units (mA, mV, mAh, hundredths of a degree Celsius).
/// Thread-safe.
class BatteryRegistry {
 public:
  virtual ~BatteryRegistry() = default;

  /// Properties of the battery's service, those named above at least; none on a machine without a battery.
  virtual std::optional<PropertyDictionary> batteryProperties() = 0;

  /// Description of the internal battery in the list of power sources; none when it is not listed.
  virtual std::optional<PropertyDictionary> internalBatteryDescription() = 0;

  /// Details of the connected power adapter; none when there is none or it says nothing.
  virtual std::optional<PropertyDictionary> externalAdapterDetails() = 0;
};

std::unique_ptr<BatteryRegistry> makeBatteryRegistry();

}  // namespace quenzel::platform
