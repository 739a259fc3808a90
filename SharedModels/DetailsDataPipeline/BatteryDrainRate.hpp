#pragma once

#include <optional>
#include <span>
#include <vector>

#include "Base/PointInTime.hpp"

namespace quenzel {

/// A reading of the battery's level.
struct BatteryLevelReading {
  PointInTime timestamp = {};
  double levelPercent = 0;

  bool operator==(const BatteryLevelReading&) const = default;
};

/// How fast the battery drains, in percent an hour (negative while it charges): the slope between the first
/// and the last reading of the 15 minutes that end with the last one. Absent without two readings more than
/// 36 seconds apart.
/// @param readings oldest first
std::optional<double> batteryDrainRatePerHour(std::span<const BatteryLevelReading> readings);

/// The same rate where it is worth showing: absent unless its readings lie at least 10 minutes or 3 percent
/// points apart. Levels come in whole percents on many machines, and one step of 1 % within 45 seconds would
/// read as 80 % an hour.
std::optional<double> reliableBatteryDrainRatePerHour(std::span<const BatteryLevelReading> readings);

}  // namespace quenzel
