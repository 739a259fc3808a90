#pragma once

#include <span>
#include <vector>

#include "SharedModels/GraphBuildEngine/PowerTrend.hpp"

namespace quenzel {

/// One point of the energy trend: what the whole machine has drawn since the first point.
struct EnergyTrendPoint {
  TrendPointID id = 0;
  PointInTime timestamp = {};
  double totalWh = 0;
  double batteryWh = 0;  ///< the part of it drawn while on battery

  bool operator==(const EnergyTrendPoint&) const = default;
};

namespace GraphBuildEngine {

/// Integrates a power trend by the trapezoid rule of EnergySlice.hpp. A slice counts for the battery when
/// either of its ends does. A point whose time does not go forward adds nothing and gives no point.
/// @param trend smoothed, but not thinned: thinning would turn slices into gaps
std::vector<EnergyTrendPoint> buildEnergyTrend(std::span<const PowerTrendPoint> trend);

}  // namespace GraphBuildEngine

}  // namespace quenzel
