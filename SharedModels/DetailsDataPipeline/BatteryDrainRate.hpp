#pragma once

#include <optional>
#include <span>
#include <vector>

#include "SharedModels/Runtime/PointInTime.hpp"

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

}  // namespace quenzel
