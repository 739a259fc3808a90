#include "SharedModels/GraphBuildEngine/PowerTrendSmoothing.hpp"

#include <algorithm>
#include <cstddef>
#include <span>
#include <utility>

#include "Base/Number.hpp"

namespace quenzel::GraphBuildEngine {
namespace {

constexpr double wattsPerSecond = 1.8;
constexpr double leastStepW = 4;
constexpr double presentPartW = 0.01;
constexpr double runningTotalW = 0.5;
constexpr double dipBelowW = 1;
constexpr double dipNeighboursAboveW = 10;

constexpr std::span<double PowerTrendPoint::*const> partFields = std::span(powerFields).subspan(1);

double carriedForward(double part, double previousPart, double totalW) {
  if (part > presentPartW) return part;
  return totalW > runningTotalW && previousPart > presentPartW ? previousPart : nonNegative(part);
}

double bounded(double value, double lowest, double highest) {
  const double raised = value < lowest ? lowest : value;
  return raised > highest ? highest : raised;
}

/// Without branches: of two pairs the lesser of the lower and the greater of the higher values can't be the
/// median of all five, so it is that of the other three.
double medianOfFive(double a, double b, double c, double d, double e) {
  const double f = std::max(std::min(a, b), std::min(c, d));
  const double g = std::min(std::max(a, b), std::max(c, d));
  return std::max(std::min(f, g), std::min(std::max(f, g), e));
}

PowerTrendPoint medianPoint(std::span<const PowerTrendPoint> points, std::size_t i, std::size_t half) {
  const std::size_t first = i - std::min(i, half);
  const auto near = points.subspan(first, std::min(i + half, points.size() - 1) - first + 1);
  PowerTrendPoint result = points[i];
  if (near.size() == 5) {
    for (const auto power : powerFields)
      result.*power =
          medianOfFive(near[0].*power, near[1].*power, near[2].*power, near[3].*power, near[4].*power);
    return result;
  }
  for (const auto power : powerFields) {
    std::vector<double> values;
    for (const PowerTrendPoint& point : near) values.push_back(point.*power);
    result.*power = median(std::move(values));
  }
  return result;
}

bool isDip(double earlierW, double totalW, double laterW) {
  return totalW < dipBelowW && earlierW > dipNeighboursAboveW && laterW > dipNeighboursAboveW;
}

}  // namespace

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::stable_sort(values.begin(), values.end());  // stays within bounds even where values have no order
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::vector<PowerTrendPoint> clampRateOfChange(std::vector<PowerTrendPoint> points) {
  for (std::size_t i = 1; i < points.size(); ++i) {
    const PowerTrendPoint& previous = points[i - 1];
    PowerTrendPoint& point = points[i];
    for (const auto part : partFields)
      point.*part = carriedForward(point.*part, previous.*part, point.totalW);
    // Whatever gets above the least step lasted longer than a second.
    const double stepW = std::max(leastStepW, (point.timestamp - previous.timestamp) * wattsPerSecond);
    for (const auto power : powerFields)
      point.*power = bounded(point.*power, previous.*power - stepW, previous.*power + stepW);
  }
  return points;
}

std::vector<PowerTrendPoint> replaceTransientDips(std::vector<PowerTrendPoint> points) {
  for (std::size_t i = 1; i + 1 < points.size(); ++i) {
    const PowerTrendPoint& earlier = points[i - 1];
    const PowerTrendPoint& later = points[i + 1];
    if (!isDip(earlier.totalW, points[i].totalW, later.totalW)) continue;
    for (const auto power : powerFields) points[i].*power = (earlier.*power + later.*power) / 2;
  }
  return points;
}

std::vector<PowerTrendPoint> medianFilter(std::vector<PowerTrendPoint> points, int window) {
  if (points.size() < 3) return points;
  const std::size_t half = std::min(static_cast<std::size_t>(std::max(window / 2, 1)), points.size());
  // A second list would fall out of the cache: what is filtered waits until nobody needs the point that it
  // replaces.
  std::vector<PowerTrendPoint> waiting(half);
  std::size_t place = 0;
  for (std::size_t i = 0; i < points.size(); ++i, place = place + 1 < half ? place + 1 : 0) {
    const PowerTrendPoint filtered = medianPoint(points, i, half);
    if (i >= half) points[i - half] = waiting[place];
    waiting[place] = filtered;
  }
  std::rotate(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(place), waiting.end());
  std::copy(waiting.begin(), waiting.end(), points.end() - static_cast<std::ptrdiff_t>(half));
  return points;
}

std::vector<PowerTrendPoint> exponentialSmooth(std::vector<PowerTrendPoint> points, double alpha) {
  for (std::size_t i = 1; i < points.size(); ++i) {
    for (const auto power : powerFields)
      points[i].*power = alpha * points[i].*power + (1 - alpha) * points[i - 1].*power;
  }
  return points;
}

std::vector<PowerTrendPoint> smoothedTrend(std::vector<PowerTrendPoint> points) {
  points = replaceTransientDips(clampRateOfChange(std::move(points)));
  return exponentialSmooth(medianFilter(std::move(points), chainWindow), chainAlpha);
}

}  // namespace quenzel::GraphBuildEngine
