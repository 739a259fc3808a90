#pragma once

#include <cstdint>
#include <initializer_list>
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

/// The battery levels of every n-th snapshot and of the last one; a snapshot without a battery reading gives
/// no point.
/// @param graphMaxPoints how many are wanted, read as pointBudget reads it; nearly twice as many may come
/// back
std::vector<BatteryLevelPoint> buildBatteryLevelTrend(std::span<const PreparedSnapshot> snapshots,
                                                      std::int64_t graphMaxPoints);
std::vector<BatteryLevelPoint> buildBatteryLevelTrend(std::span<const DrainSnapshot> snapshots,
                                                      std::int64_t graphMaxPoints);
std::vector<BatteryLevelPoint> buildBatteryLevelTrend(std::initializer_list<DrainSnapshot> snapshots,
                                                      std::int64_t graphMaxPoints);

/// Percent an hour over the last 15 minutes that have a level, positive while the battery drains: see
/// batteryDrainRatePerHour.
std::optional<double> calculateDrainRate(std::span<const PreparedSnapshot> snapshots);

/// The same rate, absent where it is too rough to be shown: see reliableBatteryDrainRatePerHour.
std::optional<double> reliableDrainRate(std::span<const PreparedSnapshot> snapshots);

}  // namespace GraphBuildEngine

}  // namespace quenzel
