#pragma once

#include <memory>
#include <optional>

#include "Base/Mutex.hpp"
#include "Base/PointInTime.hpp"
#include "MetricsCollectors/EnergyCounters.hpp"
#include "MetricsCollectors/EnergyTotals.hpp"
#include "MetricsCollectors/SystemPowerSnapshot.hpp"
#include "Platform/EnergyModelChannels.hpp"
#include "Platform/SystemLog.hpp"

namespace quenzel {

/// Measures what the main on-chip components draw from the machine's cumulative energy counters, without
/// running a tool: the first sample primes, every later one covers the span since the one before. On Linux
/// the counters are RAPL zones, with what a package and its memory use.
///
/// The counters are opened when the reader is made and kept for its life; where that fails every sample says
/// so. Thread-safe: one lock serialises the samples. One reader for each consumer, since a sample ends the
/// interval.
class AppleSiliconPowerReader {
 public:
  /// @param logger outlives the reader; told once, at debug level and in one line, which channels there are.
  /// A system that limits its lines cuts it: of a large machine's hundreds of names macOS keeps the first 1
  /// KiB.
  explicit AppleSiliconPowerReader(
      std::unique_ptr<platform::EnergyModelChannels> channels = platform::makeEnergyModelChannels(),
      platform::SystemLog& logger = platform::systemLog());

  /// @param now an earlier moment than the last counts as no time
  SystemPowerSnapshot sample(PointInTime now);

 private:
  void logChannelNames(const std::vector<platform::EnergyModelChannel>& channels) REQUIRES(lock_);

  Mutex lock_;
  const std::unique_ptr<platform::EnergyModelChannels> channels_ GUARDED_BY(lock_);
  platform::SystemLog& logger_;
  EnergyCounters counters_ GUARDED_BY(lock_);
  std::optional<EnergyTotals> previousTotals_ GUARDED_BY(lock_);
  std::optional<PointInTime> lastSampleAt_ GUARDED_BY(lock_);
  bool hasLoggedChannelNames_ GUARDED_BY(lock_) = false;
};

}  // namespace quenzel
