#include "SharedModels/GraphBuildEngine/BatteryLevelTrend.hpp"

#include <algorithm>
#include <cstddef>

#include "SharedModels/DetailsDataPipeline/BatteryDrainRate.hpp"

namespace quenzel::GraphBuildEngine {

std::vector<BatteryLevelPoint> buildBatteryLevelTrend(std::span<const PreparedSnapshot> snapshots,
                                                      std::int64_t graphMaxPoints) {
  std::vector<BatteryLevelPoint> trend;
  const auto wanted = static_cast<std::size_t>(std::max<std::int64_t>(graphMaxPoints, 1));
  const std::size_t step = std::max<std::size_t>(snapshots.size() / wanted, 1);
  for (std::size_t i = 0; i < snapshots.size(); ++i) {
    if (i % step != 0 && i + 1 != snapshots.size()) continue;
    const PreparedSnapshot& snapshot = snapshots[i];
    if (!snapshot.batteryLevelPercent) continue;
    trend.push_back({trendPointID(snapshot.timestamp), snapshot.timestamp, *snapshot.batteryLevelPercent});
  }
  return trend;
}

std::optional<double> calculateDrainRate(std::span<const PreparedSnapshot> snapshots) {
  std::vector<BatteryLevelReading> readings;
  for (const PreparedSnapshot& snapshot : snapshots) {
    if (snapshot.batteryLevelPercent) readings.push_back({snapshot.timestamp, *snapshot.batteryLevelPercent});
  }
  return batteryDrainRatePerHour(readings);
}

}  // namespace quenzel::GraphBuildEngine
