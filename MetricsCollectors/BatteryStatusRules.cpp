#include "MetricsCollectors/BatteryStatusRules.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "Base/Number.hpp"
#include "Base/Text.hpp"

namespace quenzel {
namespace {

using platform::PropertyDictionary;
using platform::PropertyValue;

constexpr std::int64_t unknownMinutes = 65535;
constexpr std::int64_t fullInPercent = 100;

std::optional<std::int64_t> wholeNumber(double real) {
  constexpr double limit = 9223372036854775808.0;  // 2^63
  if (!(real > -limit && real < limit)) return std::nullopt;
  return static_cast<std::int64_t>(real);
}

std::optional<std::int64_t> firstInt(const PropertyDictionary& properties, std::string_view key,
                                     std::string_view otherwise) {
  return properties.contains(key) ? intValue(properties, key) : intValue(properties, otherwise);
}

/// A gauge that is 32 bits wide shows a negative current as its unsigned wrap; no battery gives two million
/// amperes.
std::optional<std::int64_t> signedCurrent(std::optional<std::int64_t> amperageMa) {
  constexpr std::int64_t highest = std::numeric_limits<std::int32_t>::max();
  constexpr std::int64_t wrap = std::int64_t{1} << 32;
  if (amperageMa && *amperageMa > highest && *amperageMa < wrap) return *amperageMa - wrap;
  return amperageMa;
}

}  // namespace

std::optional<std::int64_t> intValue(const PropertyDictionary& properties, std::string_view key) {
  const PropertyValue* value = platform::find(properties, key);
  if (!value) return std::nullopt;
  if (const auto* integer = value->as<std::int64_t>()) return *integer;
  if (const auto* real = value->as<double>()) return wholeNumber(*real);
  return std::nullopt;
}

std::optional<bool> boolValue(const PropertyDictionary& properties, std::string_view key) {
  const PropertyValue* value = platform::find(properties, key);
  if (!value) return std::nullopt;
  if (const auto* flag = value->as<bool>()) return *flag;
  if (const auto* integer = value->as<std::int64_t>()) return *integer != 0;
  if (const auto* real = value->as<double>()) return *real != 0;
  return std::nullopt;
}

std::optional<std::string> stringValue(const PropertyDictionary& properties, std::string_view key) {
  const PropertyValue* value = platform::find(properties, key);
  const auto* text = value ? value->as<std::string>() : nullptr;
  return text ? std::optional(repairedUTF8(*text)) : std::nullopt;
}

const PropertyDictionary* dictionaryValue(const PropertyDictionary& properties, std::string_view key) {
  const PropertyValue* value = platform::find(properties, key);
  return value ? value->as<PropertyDictionary>() : nullptr;
}

std::optional<std::int64_t> minutesValue(const PropertyDictionary& properties, std::string_view key) {
  const auto minutes = intValue(properties, key);
  return minutes && *minutes >= 0 && *minutes != unknownMinutes ? minutes : std::nullopt;
}

std::optional<double> remainingWattHours(std::optional<std::int64_t> capacityMah,
                                         std::optional<std::int64_t> voltageMV) {
  if (!capacityMah || !voltageMV || *capacityMah < 1 || *voltageMV < 1) return std::nullopt;
  return static_cast<double>(*capacityMah) * static_cast<double>(*voltageMV) / 1'000'000;
}

std::optional<double> dischargeWatts(std::optional<std::int64_t> amperageMa,
                                     std::optional<std::int64_t> voltageMV) {
  if (!amperageMa || !voltageMV || *amperageMa >= 0) return std::nullopt;
  return -static_cast<double>(*amperageMa) * static_cast<double>(*voltageMV) / 1'000'000;
}

bool describesBattery(const PropertyDictionary& properties) {
  if (!boolValue(properties, "BatteryInstalled").value_or(true)) return false;
  return intValue(properties, "Voltage").value_or(0) > 0 || intValue(properties, "CurrentCapacity") ||
         intValue(properties, "AppleRawCurrentCapacity");
}

bool tellsLevel(const PropertyDictionary& properties) {
  return intValue(properties, "CurrentCapacity") && intValue(properties, "MaxCapacity").value_or(1) > 0;
}

void dropPercentTakenForCharge(BatteryStatusSample& sample, const PropertyDictionary& properties) {
  // No battery holds 100 mAh when it is full.
  if (intValue(properties, "MaxCapacity") != fullInPercent) return;
  if (!properties.contains("AppleRawMaxCapacity")) sample.maxCapacityMah.reset();
  if (properties.contains("AppleRawCurrentCapacity")) return;
  sample.currentCapacityMah.reset();
  sample.remainingWh.reset();
}

double limitedToPercent(double value) { return std::min(nonNegative(value), 100.0); }

BatteryStatusSample batteryStatusFromRegistry(const PropertyDictionary& properties) {
  BatteryStatusSample sample;
  sample.currentCapacityMah = firstInt(properties, "AppleRawCurrentCapacity", "CurrentCapacity");
  sample.maxCapacityMah = firstInt(properties, "AppleRawMaxCapacity", "MaxCapacity");
  sample.voltageMV = intValue(properties, "Voltage");
  sample.amperageMa = signedCurrent(firstInt(properties, "Amperage", "InstantAmperage"));
  sample.isCharging = boolValue(properties, "IsCharging").value_or(false);
  sample.cycleCount = intValue(properties, "CycleCount");
  sample.temperatureCentiC = intValue(properties, "Temperature");
  sample.designCapacityMah = intValue(properties, "DesignCapacity");
  sample.nominalChargeCapacityMah = intValue(properties, "NominalChargeCapacity");
  sample.designCycleCount = intValue(properties, "DesignCycleCount9C");
  sample.serialNumber = properties.contains("Serial") ? stringValue(properties, "Serial")
                                                      : stringValue(properties, "BatterySerialNumber");
  sample.deviceName = stringValue(properties, "DeviceName");
  sample.fullyCharged = boolValue(properties, "FullyCharged");
  sample.remainingWh = remainingWattHours(sample.currentCapacityMah, sample.voltageMV);
  sample.dischargeWatts = dischargeWatts(sample.amperageMa, sample.voltageMV);
  return sample;
}

}  // namespace quenzel
