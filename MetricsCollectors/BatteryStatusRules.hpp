#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/PropertyValue.hpp"
#include "SharedModels/Snapshot/BatteryStatusSample.hpp"

namespace quenzel {

// The rules that both battery readers follow. Pure functions; a property that is missing or of another type
// yields none.

/// A number as an integer; a real number loses its fraction.
std::optional<std::int64_t> intValue(const platform::PropertyDictionary& properties, std::string_view key);
/// A Boolean, or a number that is not 0.
std::optional<bool> boolValue(const platform::PropertyDictionary& properties, std::string_view key);
std::optional<std::string> stringValue(const platform::PropertyDictionary& properties, std::string_view key);
const platform::PropertyDictionary* dictionaryValue(const platform::PropertyDictionary& properties,
                                                    std::string_view key);

/// Minutes of a time key; none for what the battery gauge means by "unknown": 65535 and negative numbers.
std::optional<std::int64_t> minutesValue(const platform::PropertyDictionary& properties,
                                         std::string_view key);

/// The fields that the registry's properties of the battery fill alike for both readers: capacities, voltage,
/// current, counts, temperature, identity, and the energy and power derived from them. The level and what
/// concerns the adapter are left as they are.
BatteryStatusSample batteryStatusFromRegistry(const platform::PropertyDictionary& properties);

// What a person may be shown of an entry, and a history may keep.

/// Whether the entry stands for a battery: not marked as missing, and telling a voltage or a charge. A
/// desktop and an empty bay may have an entry, too.
bool describesBattery(const platform::PropertyDictionary& properties);

/// Whether the entry tells how full the battery is; without that its level reads as 0 %.
bool tellsLevel(const platform::PropertyDictionary& properties);

/// Takes out what the entry tells in percent only: 80 of 100 are no mAh, and no energy follows from them.
void dropPercentTakenForCharge(BatteryStatusSample& sample, const platform::PropertyDictionary& properties);

/// Remaining energy of a charge; none unless both are known and at least 1.
std::optional<double> remainingWattHours(std::optional<std::int64_t> capacityMah,
                                         std::optional<std::int64_t> voltageMV);
/// Power drawn from the battery; none unless the current is negative, which means discharging.
std::optional<double> dischargeWatts(std::optional<std::int64_t> amperageMa,
                                     std::optional<std::int64_t> voltageMV);

/// The value limited to 0 to 100; what is not a number counts as 0.
double limitedToPercent(double value);

}  // namespace quenzel
