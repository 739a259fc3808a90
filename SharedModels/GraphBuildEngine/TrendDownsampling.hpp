#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "SharedModels/GraphBuildEngine/EnergyTrend.hpp"
#include "SharedModels/GraphBuildEngine/PowerTrend.hpp"

// Fits trends to the number of points that a graph has room for (its budget). Both functions always keep the
// newest point, so they may return one point more than the budget.

namespace quenzel::GraphBuildEngine {

/// The number of points that fit: below 0 there is no limit and every point stays; 0 counts as 1.
std::size_t pointBudget(std::int64_t maxPoints);

/// Averages neighbouring points, which preserves the area under the curve. An averaged point has the
/// identity, the time and the power source of the first point that went into it.
std::vector<PowerTrendPoint> downsample(std::span<const PowerTrendPoint> points, std::int64_t maxPoints);

/// Picks points at even distances: cumulative totals can't be averaged.
std::vector<EnergyTrendPoint> downsampleEnergyTrend(std::span<const EnergyTrendPoint> points,
                                                    std::int64_t maxPoints);

}  // namespace quenzel::GraphBuildEngine
