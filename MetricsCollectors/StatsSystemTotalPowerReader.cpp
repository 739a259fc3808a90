#include "MetricsCollectors/StatsSystemTotalPowerReader.hpp"

#include <optional>
#include <utility>

#include "Base/Number.hpp"
#include "MetricsCollectors/SMCReader.hpp"

namespace quenzel {
namespace {

constexpr double secondsPerHour = 3600;
constexpr double leastVisibleW = 0.01;

}  // namespace

double StatsSystemTotalSnapshot::preferredVisibleW() const {
  return instantaneousW > leastVisibleW ? instantaneousW : nonNegative(averageW);
}

StatsSystemTotalPowerReader::StatsSystemTotalPowerReader(std::shared_ptr<SMCTotalPowerReading> smcReader,
                                                         PointInTime startDate)
    : smcReader_(smcReader ? std::move(smcReader) : std::make_shared<SMCReader>()),
      firstReadAt_(startDate),
      lastReadAt_(startDate) {}

StatsSystemTotalSnapshot StatsSystemTotalPowerReader::sample(PointInTime now) {
  const MutexLock guard(lock_);
  const std::optional<double> watts = smcReader_->readSystemTotalPowerWatts();
  const bool available = watts && *watts > 0;
  if (available) {
    totalConsumptionWh_ += *watts * nonNegative(now - lastReadAt_) / secondsPerHour;
    const double elapsed = now - firstReadAt_;
    if (elapsed > 0) lastAverageW_ = totalConsumptionWh_ * secondsPerHour / elapsed;
    lastInstantaneousW_ = *watts;
    lastReadAt_ = now;
  }
  return {nonNegative(lastInstantaneousW_), nonNegative(lastAverageW_), nonNegative(totalConsumptionWh_),
          available};
}

}  // namespace quenzel
