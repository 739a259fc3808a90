#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Base/Mutex.hpp"
#include "Base/PointInTime.hpp"
#include "Platform/HostCPUTicks.hpp"

namespace quenzel {

/// How busy all processors together were over an interval.
struct SystemCPUSample {
  double busyFraction = 0;           ///< 0 to 1
  std::int64_t logicalCPUCount = 1;  ///< at least 1
  double intervalSeconds = 0;        ///< at least 0

  bool operator==(const SystemCPUSample&) const = default;
};

/// Measures the machine's CPU load between two samples; the first one only primes the counters. One reader
/// for each consumer, since a sample ends the interval. Thread-safe.
class SystemCPULoadReader {
 public:
  explicit SystemCPULoadReader(std::int64_t logicalCPUCount,
                               std::unique_ptr<platform::HostCPUTicks> ticks = platform::makeHostCPUTicks());

  SystemCPUSample sample(PointInTime now);

 private:
  const std::int64_t logicalCPUCount_;
  Mutex lock_;
  const std::unique_ptr<platform::HostCPUTicks> ticks_ GUARDED_BY(lock_);
  std::optional<platform::CPUTicks> previousInfo_ GUARDED_BY(lock_);
  std::optional<PointInTime> lastSampleAt_ GUARDED_BY(lock_);
};

}  // namespace quenzel
