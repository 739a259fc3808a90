#include "SharedModels/GraphBuildEngine/PowerTrend.hpp"

#include <cmath>

namespace quenzel::GraphBuildEngine {
namespace {

double finiteOrZero(double value) { return std::isfinite(value) ? value : 0; }

}  // namespace

TrendPointID trendPointID(PointInTime time) { return std::llround(time.secondsSince2001 * 1000); }

std::vector<PowerTrendPoint> powerTrend(std::span<const PreparedSnapshot> snapshots) {
  std::vector<PowerTrendPoint> trend;
  trend.reserve(snapshots.size());
  for (const PreparedSnapshot& snapshot : snapshots) {
    trend.push_back({.id = trendPointID(snapshot.timestamp),
                     .timestamp = snapshot.timestamp,
                     .totalW = finiteOrZero(snapshot.totalW),
                     .processW = finiteOrZero(snapshot.processW),
                     .componentW = finiteOrZero(snapshot.componentW),
                     .unattributedW = finiteOrZero(snapshot.unattributedW),
                     .onBatteryPower = snapshot.onBatteryPower});
  }
  return trend;
}

}  // namespace quenzel::GraphBuildEngine
