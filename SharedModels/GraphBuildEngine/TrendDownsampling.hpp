#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "SharedModels/GraphBuildEngine/EnergyTrend.hpp"
#include "SharedModels/GraphBuildEngine/PowerTrend.hpp"

// Fits trends to the number of points that a graph has room for. Both keep the newest point whatever else
// they drop, so one point more than asked may come back. A budget below 1 counts as 1.

namespace quenzel::GraphBuildEngine {

/// Averages neighbouring points, so that the area under the curve stays. An averaged point has the identity,
/// the time and the power source of the first that went into it.
std::vector<PowerTrendPoint> downsample(std::span<const PowerTrendPoint> points, std::int64_t maxPoints);

/// Picks points at even distances: totals that have grown so far can't be averaged.
std::vector<EnergyTrendPoint> downsampleEnergyTrend(std::span<const EnergyTrendPoint> points,
                                                    std::int64_t maxPoints);

}  // namespace quenzel::GraphBuildEngine
