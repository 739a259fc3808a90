#include "SharedModels/DetailsDataPipeline/BatteryDrainRate.hpp"

#include <cmath>

namespace quenzel {
namespace {

constexpr double rateWindowSeconds = 900;
constexpr double leastHours = 0.01;
constexpr double leastShownHours = 10.0 / 60;
constexpr double leastShownChangePercent = 3;

/// What changed over the readings that count for the rate.
struct LevelChange {
  double hours;
  double drainedPercent;
};

std::optional<LevelChange> recentChange(std::span<const BatteryLevelReading> readings) {
  if (readings.size() < 2) return {};
  const BatteryLevelReading& last = readings.back();
  const PointInTime cutoff = last.timestamp - rateWindowSeconds;
  // Not a binary search: a clock that was set back leaves readings out of order.
  const BatteryLevelReading* first = readings.data();
  while (first->timestamp < cutoff) ++first;
  const double hours = (last.timestamp - first->timestamp) / 3600;
  if (!(hours > leastHours)) return {};
  return LevelChange{hours, first->levelPercent - last.levelPercent};
}

double ratePerHour(const LevelChange& change) { return change.drainedPercent / change.hours; }

}  // namespace

std::optional<double> batteryDrainRatePerHour(std::span<const BatteryLevelReading> readings) {
  const auto change = recentChange(readings);
  if (!change) return {};
  return ratePerHour(*change);
}

std::optional<double> reliableBatteryDrainRatePerHour(std::span<const BatteryLevelReading> readings) {
  const auto change = recentChange(readings);
  if (!change) return {};
  const bool isReliable =
      change->hours >= leastShownHours || std::abs(change->drainedPercent) >= leastShownChangePercent;
  return isReliable ? std::optional(ratePerHour(*change)) : std::nullopt;
}

}  // namespace quenzel
