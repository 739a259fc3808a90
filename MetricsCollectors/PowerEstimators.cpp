#include "MetricsCollectors/PowerEstimators.hpp"

#include <algorithm>

#include "Base/Number.hpp"

namespace quenzel {
namespace {

// Calibrated with the attribution: changing one changes every published figure.
constexpr double baseDischargeW = 2.4;
constexpr double wattsPerCPUPercent = 0.22;
constexpr double dischargeFloorW = 2.0;
constexpr double dischargeCeilingW = 65.0;

}  // namespace

double DisplayPowerEstimator::estimateWatts() const {
  return nonNegative(source_.readDisplayPowerWatts().value_or(0));
}

double USBPowerEstimator::estimateWatts() const {
  if (!source_) return 0;
  const double left = nonNegative(source_->readThunderboltLeftPowerWatts().value_or(0));
  return left + nonNegative(source_->readThunderboltRightPowerWatts().value_or(0));
}

double BatteryDrainEstimator::estimateTotalDischargeW(const std::vector<double>& topProcessCPU) {
  double cpuPercent = 0;
  for (const double percent : topProcessCPU) cpuPercent += nonNegative(percent);
  return std::clamp(cpuPercent * wattsPerCPUPercent + baseDischargeW, dischargeFloorW, dischargeCeilingW);
}

}  // namespace quenzel
