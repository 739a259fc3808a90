#pragma once

#include <string_view>

#include "MetricsCollectors/ShellRunning.hpp"
#include "Platform/PropertyValue.hpp"
#include "SharedModels/Snapshot/BatteryStatusSample.hpp"

namespace quenzel {

/// Takes one reading of the battery.
class BatteryStatusCollecting {
 public:
  virtual ~BatteryStatusCollecting() = default;

  /// @throws ShellRunnerError or platform::PropertyListError when there is no reading to be had
  virtual BatteryStatusSample collectStatus() const = 0;
};

/// Reads the battery from the property list that ioreg(8) dumps of its registry entry. Immutable; blocks
/// while the tool runs.
class BatteryStatusCollector final : public BatteryStatusCollecting {
 public:
  explicit BatteryStatusCollector(const ShellRunning& shell) : shell_(shell) {}

  BatteryStatusSample collectStatus() const override;

  /// The reading that such a dump holds: an array whose first element is the battery's dictionary.
  static BatteryStatusSample statusFrom(std::string_view propertyList);

  // The steps of collectStatus(), for a caller who judges the entry before it counts as a reading.

  /// Runs the tool and returns the battery's dictionary. Throws as collectStatus() does.
  platform::PropertyDictionary collectEntry() const;
  static BatteryStatusSample statusFrom(const platform::PropertyDictionary& entry);
  static void logStatus(const BatteryStatusSample& status);

 private:
  static platform::PropertyDictionary entryFrom(std::string_view propertyList);

  const ShellRunning& shell_;
};

}  // namespace quenzel
