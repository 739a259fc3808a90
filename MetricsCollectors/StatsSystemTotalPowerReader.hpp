#pragma once

#include <memory>

#include "Base/Mutex.hpp"
#include "Base/PointInTime.hpp"
#include "MetricsCollectors/SMCPowerReading.hpp"

namespace quenzel {

/// The whole system's power at one moment and since the account began.
struct StatsSystemTotalSnapshot {
  double instantaneousW = 0;
  double averageW = 0;            ///< over the whole account
  double totalConsumptionWh = 0;  ///< since the account began
  bool available = false;         ///< whether this moment's power could be read

  static constexpr StatsSystemTotalSnapshot empty() { return {}; }

  /// The figure to show: the instantaneous power where it exceeds 0.01 W, else the average; never negative.
  double preferredVisibleW() const;

  bool operator==(const StatsSystemTotalSnapshot&) const = default;
};

/// Keeps a running energy account from the system power that each sample reads: the power at a sample is
/// taken to have held since the one before it. A moment without a positive reading repeats the last figures,
/// marked as not available, and the next reading accounts for the gap. Thread-safe.
class StatsSystemTotalPowerReader {
 public:
  /// Without a source it opens a reader of the machine's own controller.
  explicit StatsSystemTotalPowerReader(std::shared_ptr<SMCTotalPowerReading> smcReader = nullptr,
                                       PointInTime startDate = now());

  StatsSystemTotalSnapshot sample(PointInTime now);

 private:
  Mutex lock_;
  const std::shared_ptr<SMCTotalPowerReading> smcReader_;
  double totalConsumptionWh_ GUARDED_BY(lock_) = 0;
  double lastInstantaneousW_ GUARDED_BY(lock_) = 0;
  double lastAverageW_ GUARDED_BY(lock_) = 0;
  const PointInTime firstReadAt_;
  PointInTime lastReadAt_ GUARDED_BY(lock_);
};

}  // namespace quenzel
