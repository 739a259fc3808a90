#pragma once

#include <vector>

#include "SharedModels/GraphBuildEngine/PowerTrend.hpp"

// The filter chain between the raw power trend and everything that is drawn or integrated from it. Each stage
// gives one point for each of its input, oldest first, with the same id, timestamp and onBatteryPower, and
// takes time linear in their number. Nothing fails: time that stands still, runs back or is no number only
// means the smallest step, and a power that is no number harms nothing but the curve around it.

namespace quenzel::GraphBuildEngine {

inline constexpr int chainWindow = 5;
inline constexpr double chainAlpha = 0.2;

/// The middle of the values (the mean of the two middle ones of an even number); 0 for none.
double median(std::vector<double> values);

/// Bounds how far each power moves from one point to the next, to 1.8 W a second but no less than 4 W, and
/// lets a part that vanishes while the machine still draws power keep its last value.
std::vector<PowerTrendPoint> clampRateOfChange(std::vector<PowerTrendPoint> points);

/// Fills single points below 1 W between two above 10 W with the mean of the two: a reading that was missed.
std::vector<PowerTrendPoint> replaceTransientDips(std::vector<PowerTrendPoint> points);

/// Each power becomes its median over the points up to half a window away; at the ends there are fewer of
/// them. Fewer than three points stay as they are.
/// @param window number of points; half of it, rounded down, counts as 1 at least
std::vector<PowerTrendPoint> medianFilter(std::vector<PowerTrendPoint> points, int window);

/// Each power becomes a mean of itself, weighted alpha, and the one before, as it came out of here, weighted
/// 1 - alpha.
/// @param alpha above 0, at most 1
std::vector<PowerTrendPoint> exponentialSmooth(std::vector<PowerTrendPoint> points, double alpha);

/// The whole chain: the stages above in their order, with chainWindow and chainAlpha. At most 40 ns a
/// point.
std::vector<PowerTrendPoint> smoothedTrend(std::vector<PowerTrendPoint> points);

}  // namespace quenzel::GraphBuildEngine
