#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "SharedModels/GraphBuildEngine/PowerTrend.hpp"
#include "SharedModels/GraphBuildEngine/PreparedSnapshot.hpp"

namespace quenzel {

/// One point of the battery level trend.
struct BatteryLevelPoint {
  TrendPointID id = 0;
  PointInTime timestamp = {};
  double levelPercent = 0;

  bool operator==(const BatteryLevelPoint&) const = default;
};

namespace GraphBuildEngine {

/// The levels of snapshots at even distances, and of the last; those without a battery reading give none.
/// @param graphMaxPoints how many are wanted; nearly twice as many may come back. Below 1 it counts as 1.
std::vector<BatteryLevelPoint> buildBatteryLevelTrend(std::span<const PreparedSnapshot> snapshots,
                                                      std::int64_t graphMaxPoints);

/// Percent an hour over the last 15 minutes that have a level, positive while the battery drains: see
/// batteryDrainRatePerHour.
std::optional<double> calculateDrainRate(std::span<const PreparedSnapshot> snapshots);

}  // namespace GraphBuildEngine

}  // namespace quenzel
