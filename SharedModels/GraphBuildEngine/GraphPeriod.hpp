#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "SharedModels/GraphBuildEngine/BatteryLevelTrend.hpp"
#include "SharedModels/GraphBuildEngine/EnergyTrend.hpp"
#include "SharedModels/GraphBuildEngine/PowerTrend.hpp"
#include "SharedModels/Snapshot/SnapshotQuality.hpp"

namespace quenzel {

/// A period that graphs are drawn for.
struct GraphPeriodSpec {
  std::string label = {};
  double seconds = 0;
  std::int64_t graphMaxPoints = 0;  ///< how many points a graph of it has room for

  bool operator==(const GraphPeriodSpec&) const = default;
};

/// The graphs of one period, each fitted to its room.
struct GraphPeriodTrends {
  std::vector<PowerTrendPoint> powerTrend = {};
  std::vector<EnergyTrendPoint> energyTrend = {};
  std::vector<BatteryLevelPoint> batteryLevelTrend = {};
  /// Percent, positive while the battery drains; as calculateDrainRate and as reliableDrainRate give it.
  std::optional<double> batteryDrainRatePerHour = {};
  std::optional<double> reliableBatteryDrainRatePerHour = {};

  bool operator==(const GraphPeriodTrends&) const = default;
};

namespace GraphBuildEngine {

/// @param snapshots those of the period, oldest first, without near-duplicates
GraphPeriodTrends buildPeriodTrends(std::span<const PreparedSnapshot> snapshots, const GraphPeriodSpec& spec);

/// The end of the time axis: the time of the last snapshot, or of the fallback when there is none.
PointInTime chartAnchorTimestamp(std::span<const PreparedSnapshot> snapshots,
                                 const PreparedSnapshot& fallbackSnapshot);
PointInTime chartAnchorTimestamp(std::span<const DrainSnapshot> snapshots,
                                 const DrainSnapshot& fallbackSnapshot);

/// Chooses between near-duplicates here as everywhere.
using quenzel::snapshotQuality;

}  // namespace GraphBuildEngine

}  // namespace quenzel
