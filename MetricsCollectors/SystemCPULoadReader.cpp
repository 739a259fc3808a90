#include "MetricsCollectors/SystemCPULoadReader.hpp"

#include <algorithm>
#include <utility>

#include "Base/Number.hpp"

namespace quenzel {
namespace {

/// The counters are 32 bits wide and wrap; unsigned subtraction yields the true increase all the same, and
/// never a negative one, so the fraction is within 0 and 1.
double busyFractionBetween(const platform::CPUTicks& previous, const platform::CPUTicks& current) {
  const auto increase = [](std::uint32_t from, std::uint32_t to) { return static_cast<double>(to - from); };
  const double busy = increase(previous.user, current.user) + increase(previous.system, current.system) +
                      increase(previous.nice, current.nice);
  const double total = busy + increase(previous.idle, current.idle);
  return total > 0 ? busy / total : 0;
}

}  // namespace

SystemCPULoadReader::SystemCPULoadReader(std::int64_t logicalCPUCount,
                                         std::unique_ptr<platform::HostCPUTicks> ticks)
    : logicalCPUCount_(std::max<std::int64_t>(logicalCPUCount, 1)), ticks_(std::move(ticks)) {}

SystemCPUSample SystemCPULoadReader::sample(PointInTime now) {
  const MutexLock guard(lock_);
  const auto current = ticks_->read();
  if (!current) return {0, logicalCPUCount_, 0};
  const double interval = lastSampleAt_ ? nonNegative(now - *lastSampleAt_) : 0;
  const double busyFraction = previousInfo_ ? busyFractionBetween(*previousInfo_, *current) : 0;
  previousInfo_ = current;
  lastSampleAt_ = now;
  return {busyFraction, logicalCPUCount_, interval};
}

}  // namespace quenzel
