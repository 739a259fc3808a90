#include "MetricsCollectors/BatteryStatusCollector.hpp"

#include <array>
#include <span>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "Base/Number.hpp"
#include "MetricsCollectors/BatteryStatusRules.hpp"
#include "Platform/PropertyList.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"

namespace quenzel {
namespace {

using platform::PropertyDictionary;
using platform::PropertyValue;

constexpr std::string_view component = "BatteryStatus";
constexpr std::array<std::string_view, 4> timeKeysWhileCharging = {"AvgTimeToFull", "TimeToFull",
                                                                   "AvgTimeToEmpty", "TimeRemaining"};
constexpr std::array<std::string_view, 2> timeKeysOtherwise = {"AvgTimeToEmpty", "TimeRemaining"};

std::optional<std::int64_t> firstMinutes(const PropertyDictionary& properties,
                                         std::span<const std::string_view> keys) {
  for (const std::string_view key : keys) {
    if (const auto minutes = minutesValue(properties, key)) return minutes;
  }
  return std::nullopt;
}

/// Which times apply; where the battery does not say whether it is charging, its current does.
bool fills(const PropertyDictionary& properties, const BatteryStatusSample& sample) {
  return boolValue(properties, "IsCharging").value_or(sample.amperageMa.value_or(0) > 0);
}

double levelPercent(const PropertyDictionary& properties) {
  const auto current = static_cast<double>(intValue(properties, "CurrentCapacity").value_or(0));
  const auto maximum = static_cast<double>(intValue(properties, "MaxCapacity").value_or(1));
  return limitedToPercent(current / maximum * 100);
}

std::string integerOrNil(std::optional<std::int64_t> value) { return value ? std::to_string(*value) : "nil"; }

std::string summary(const BatteryStatusSample& sample) {
  return fmt::format(
      "Battery status: level={:.2f}%, remainingWh={}, charging={}, external={}, dischargeWatts={}, "
      "systemMinutes={}, "
      "cycleCount={}",
      sample.levelPercent, twoDecimalsOrNil(sample.remainingWh), boolText(sample.isCharging),
      boolText(sample.externalPowerConnected), twoDecimalsOrNil(sample.dischargeWatts),
      integerOrNil(sample.systemTimeRemainingMinutes), integerOrNil(sample.cycleCount));
}

}  // namespace

PropertyDictionary BatteryStatusCollector::entryFrom(std::string_view propertyList) {
  const PropertyValue list = platform::decodePropertyList(propertyList);
  const auto* entries = list.as<PropertyValue::Array>();
  const auto* entry = entries && !entries->empty() ? entries->front().as<PropertyDictionary>() : nullptr;
  if (!entry) throw ShellRunnerError::failedToLaunch("Unable to parse AppleSmartBattery plist output.");
  return *entry;
}

BatteryStatusSample BatteryStatusCollector::statusFrom(const PropertyDictionary& entry) {
  BatteryStatusSample sample = batteryStatusFromRegistry(entry);
  sample.levelPercent = levelPercent(entry);
  sample.externalPowerConnected = boolValue(entry, "ExternalConnected").value_or(false);
  if (const auto* adapter = dictionaryValue(entry, "AdapterDetails")) {
    sample.adapterWatts = intValue(*adapter, "Watts");
    sample.adapterName = stringValue(*adapter, "Name");
  }
  sample.systemTimeRemainingMinutes = fills(entry, sample) ? firstMinutes(entry, timeKeysWhileCharging)
                                                           : firstMinutes(entry, timeKeysOtherwise);
  return sample;
}

BatteryStatusSample BatteryStatusCollector::statusFrom(std::string_view propertyList) {
  return statusFrom(entryFrom(propertyList));
}

PropertyDictionary BatteryStatusCollector::collectEntry() const {
  RuntimeLog::info(component, "Collecting battery status from ioreg.");
  ShellResult result = shell_.run("/usr/sbin/ioreg", {"-r", "-n", "AppleSmartBattery", "-a"});
  if (result.status != 0) {
    throw ShellRunnerError::nonZeroExit(result.status, std::move(result.stdout), std::move(result.stderr));
  }
  return entryFrom(result.stdout);
}

void BatteryStatusCollector::logStatus(const BatteryStatusSample& status) {
  RuntimeLog::info(component, summary(status));
}

BatteryStatusSample BatteryStatusCollector::collectStatus() const {
  const BatteryStatusSample sample = statusFrom(collectEntry());
  logStatus(sample);
  return sample;
}

}  // namespace quenzel
