#include "SharedModels/GraphBuildEngine/GraphPeriod.hpp"

#include "SharedModels/GraphBuildEngine/PowerTrendSmoothing.hpp"
#include "SharedModels/GraphBuildEngine/TrendDownsampling.hpp"

namespace quenzel::GraphBuildEngine {

GraphPeriodTrends buildPeriodTrends(std::span<const PreparedSnapshot> snapshots,
                                    const GraphPeriodSpec& spec) {
  const std::vector<PowerTrendPoint> smoothed = smoothedTrend(powerTrend(snapshots));
  return {.powerTrend = downsample(smoothed, spec.graphMaxPoints),
          .energyTrend = downsampleEnergyTrend(buildEnergyTrend(smoothed), spec.graphMaxPoints),
          .batteryLevelTrend = buildBatteryLevelTrend(snapshots, spec.graphMaxPoints),
          .batteryDrainRatePerHour = calculateDrainRate(snapshots),
          .reliableBatteryDrainRatePerHour = reliableDrainRate(snapshots)};
}

PointInTime chartAnchorTimestamp(std::span<const PreparedSnapshot> snapshots,
                                 const PreparedSnapshot& fallbackSnapshot) {
  return snapshots.empty() ? fallbackSnapshot.timestamp : snapshots.back().timestamp;
}

PointInTime chartAnchorTimestamp(std::span<const DrainSnapshot> snapshots,
                                 const DrainSnapshot& fallbackSnapshot) {
  return snapshots.empty() ? fallbackSnapshot.timestamp : snapshots.back().timestamp;
}

}  // namespace quenzel::GraphBuildEngine
