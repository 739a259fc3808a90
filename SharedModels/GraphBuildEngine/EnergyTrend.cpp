#include "SharedModels/GraphBuildEngine/EnergyTrend.hpp"

#include <cstddef>

#include "SharedModels/Snapshot/EnergySlice.hpp"

namespace quenzel::GraphBuildEngine {

std::vector<EnergyTrendPoint> buildEnergyTrend(std::span<const PowerTrendPoint> trend) {
  std::vector<EnergyTrendPoint> energy;
  if (trend.empty()) return energy;
  energy.reserve(trend.size());
  energy.push_back({.id = trend.front().id, .timestamp = trend.front().timestamp});
  for (std::size_t i = 1; i < trend.size(); ++i) {
    const PowerTrendPoint& earlier = trend[i - 1];
    const PowerTrendPoint& later = trend[i];
    const double hours = sliceHours(later.timestamp - earlier.timestamp);
    if (!(hours > 0)) continue;
    const double wh = sliceWh(hours, earlier.totalW, later.totalW);
    const double batteryWh = earlier.onBatteryPower || later.onBatteryPower ? wh : 0;
    const EnergyTrendPoint& last = energy.back();
    energy.push_back({later.id, later.timestamp, last.totalWh + wh, last.batteryWh + batteryWh});
  }
  return energy;
}

}  // namespace quenzel::GraphBuildEngine
