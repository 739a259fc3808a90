#include "SharedModels/GraphBuildEngine/BatteryLevelTrend.hpp"

#include <algorithm>
#include <cstddef>

#include "SharedModels/DetailsDataPipeline/BatteryDrainRate.hpp"
#include "SharedModels/GraphBuildEngine/TrendDownsampling.hpp"

namespace quenzel::GraphBuildEngine {
namespace {

std::vector<BatteryLevelReading> levelReadings(std::span<const PreparedSnapshot> snapshots) {
  std::vector<BatteryLevelReading> readings;
  for (const PreparedSnapshot& snapshot : snapshots) {
    if (snapshot.batteryLevelPercent) readings.push_back({snapshot.timestamp, *snapshot.batteryLevelPercent});
  }
  return readings;
}

}  // namespace

std::vector<BatteryLevelPoint> buildBatteryLevelTrend(std::span<const PreparedSnapshot> snapshots,
                                                      std::int64_t graphMaxPoints) {
  std::vector<BatteryLevelPoint> trend;
  const std::size_t step = std::max<std::size_t>(snapshots.size() / pointBudget(graphMaxPoints), 1);
  for (std::size_t i = 0; i < snapshots.size(); ++i) {
    if (i % step != 0 && i + 1 != snapshots.size()) continue;
    const PreparedSnapshot& snapshot = snapshots[i];
    if (!snapshot.batteryLevelPercent) continue;
    trend.push_back({trendPointID(snapshot.timestamp), snapshot.timestamp, *snapshot.batteryLevelPercent});
  }
  return trend;
}

std::vector<BatteryLevelPoint> buildBatteryLevelTrend(std::span<const DrainSnapshot> snapshots,
                                                      std::int64_t graphMaxPoints) {
  return buildBatteryLevelTrend(preparedSnapshots(snapshots), graphMaxPoints);
}

std::vector<BatteryLevelPoint> buildBatteryLevelTrend(std::initializer_list<DrainSnapshot> snapshots,
                                                      std::int64_t graphMaxPoints) {
  return buildBatteryLevelTrend(std::span(snapshots.begin(), snapshots.size()), graphMaxPoints);
}

std::optional<double> calculateDrainRate(std::span<const PreparedSnapshot> snapshots) {
  return batteryDrainRatePerHour(levelReadings(snapshots));
}

std::optional<double> reliableDrainRate(std::span<const PreparedSnapshot> snapshots) {
  return reliableBatteryDrainRatePerHour(levelReadings(snapshots));
}

}  // namespace quenzel::GraphBuildEngine
