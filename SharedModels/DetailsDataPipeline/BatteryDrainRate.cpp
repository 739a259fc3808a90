#include "SharedModels/DetailsDataPipeline/BatteryDrainRate.hpp"

namespace quenzel {
namespace {

constexpr double rateWindowSeconds = 900;
constexpr double leastHours = 0.01;

}  // namespace

std::optional<double> batteryDrainRatePerHour(std::span<const BatteryLevelReading> readings) {
  if (readings.size() < 2) return {};
  const BatteryLevelReading& last = readings.back();
  const PointInTime cutoff = last.timestamp - rateWindowSeconds;
  // Not a binary search: a clock that was set back leaves readings out of order.
  const BatteryLevelReading* first = readings.data();
  while (first->timestamp < cutoff) ++first;
  const double hours = (last.timestamp - first->timestamp) / 3600;
  if (!(hours > leastHours)) return {};
  return (first->levelPercent - last.levelPercent) / hours;
}

}  // namespace quenzel
