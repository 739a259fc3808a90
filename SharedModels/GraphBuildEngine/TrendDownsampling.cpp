#include "SharedModels/GraphBuildEngine/TrendDownsampling.hpp"

#include <algorithm>
#include <limits>

namespace quenzel::GraphBuildEngine {
namespace {

/// How many points share one place; at least 1.
std::size_t pointsAPlace(std::size_t count, std::size_t budget) {
  return std::max<std::size_t>(count / budget + (count % budget != 0), 1);
}

PowerTrendPoint averagePoint(std::span<const PowerTrendPoint> bucket) {
  PowerTrendPoint average = bucket.front();
  for (const auto power : powerFields) {
    double sum = 0;
    for (const PowerTrendPoint& point : bucket) sum += point.*power;
    average.*power = sum / static_cast<double>(bucket.size());
  }
  return average;
}

/// The points at 0, the stride, twice the stride and so on, and the newest behind them unless it is there.
template <typename Point>
std::vector<Point> everyNth(std::span<const Point> points, std::size_t stride, const Point& newest) {
  std::vector<Point> kept;
  kept.reserve(points.size() / stride + 2);
  for (std::size_t i = 0; i < points.size(); i += stride) kept.push_back(points[i]);
  if (!(kept.back() == newest)) kept.push_back(newest);
  return kept;
}

}  // namespace

std::size_t pointBudget(std::int64_t maxPoints) {
  if (maxPoints < 0) return std::numeric_limits<std::size_t>::max();
  return static_cast<std::size_t>(std::max<std::int64_t>(maxPoints, 1));
}

std::vector<PowerTrendPoint> downsample(std::span<const PowerTrendPoint> points, std::int64_t maxPoints) {
  const std::size_t budget = pointBudget(maxPoints);
  if (points.size() <= budget) return {points.begin(), points.end()};
  const std::size_t bucketSize = pointsAPlace(points.size(), budget);
  std::vector<PowerTrendPoint> averaged;
  averaged.reserve(budget + 1);
  for (auto rest = points; !rest.empty(); rest = rest.subspan(std::min(bucketSize, rest.size())))
    averaged.push_back(averagePoint(rest.first(std::min(bucketSize, rest.size()))));
  if (!(averaged.back() == points.back())) averaged.push_back(points.back());
  if (averaged.size() <= budget) return averaged;
  return everyNth<PowerTrendPoint>(averaged, pointsAPlace(averaged.size(), budget), points.back());
}

std::vector<EnergyTrendPoint> downsampleEnergyTrend(std::span<const EnergyTrendPoint> points,
                                                    std::int64_t maxPoints) {
  const std::size_t budget = pointBudget(maxPoints);
  if (points.size() <= budget) return {points.begin(), points.end()};
  return everyNth(points, pointsAPlace(points.size(), budget), points.back());
}

}  // namespace quenzel::GraphBuildEngine
