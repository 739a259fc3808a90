#pragma once

#include <memory>
#include <span>

#include "MetricsCollectors/SMCPowerReading.hpp"

namespace quenzel {

/// The display's power as the controller reads it. Stateless; as thread-safe as its source.
class DisplayPowerEstimator {
 public:
  explicit DisplayPowerEstimator(SMCDisplayPowerReading& source) : source_(source) {}

  /// Watts; 0 where there is no reading or a negative one.
  double estimateWatts() const;

 private:
  SMCDisplayPowerReading& source_;
};

/// The power given out through the left and right Thunderbolt/USB ports. Stateless; as thread-safe as its
/// source.
class USBPowerEstimator {
 public:
  /// @param source may be null: then nothing is estimated
  explicit USBPowerEstimator(SMCUSBPowerReading* source) : source_(source) {}

  /// Watts of both sides; a side without a reading, or with a negative one, counts as 0.
  double estimateWatts() const;

 private:
  SMCUSBPowerReading* source_;
};

/// A rough figure for the whole machine where nothing measures it: 2.4 W and 0.22 W more for each percent of
/// one core, at least 2 W and at most 65 W.
class BatteryDrainEstimator {
 public:
  /// @param topProcessCPU CPU percentages of the busiest processes, 100 being one fully busy core; negative
  /// ones count 0
  static double estimateTotalDischargeW(std::span<const double> topProcessCPU);
};

}  // namespace quenzel
