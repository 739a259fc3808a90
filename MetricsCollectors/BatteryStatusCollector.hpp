#pragma once

#include <string_view>

#include "MetricsCollectors/ShellRunning.hpp"
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

 private:
  const ShellRunning& shell_;
};

}  // namespace quenzel
