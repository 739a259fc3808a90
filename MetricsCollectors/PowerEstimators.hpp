#pragma once

#include <vector>

#include "MetricsCollectors/SMCPowerReading.hpp"
#include "MetricsCollectors/ShellRunning.hpp"

namespace quenzel {

// The controller's readings need no tool. An estimator that was given a runner keeps it for whoever asks a
// tool beside it, and does not consult it.

/// The display's power as the controller reads it. Stateless; as thread-safe as its source.
class DisplayPowerEstimator {
 public:
  explicit DisplayPowerEstimator(SMCDisplayPowerReading& source, const ShellRunning* shell = nullptr)
      : source_(source), shell_(shell) {}

  /// Watts; 0 where there is no reading or a negative one.
  double estimateWatts() const;

  const ShellRunning* shell() const { return shell_; }

 private:
  SMCDisplayPowerReading& source_;
  const ShellRunning* shell_;
};

/// The power given out through the left and right Thunderbolt/USB ports. Stateless; as thread-safe as its
/// source.
class USBPowerEstimator {
 public:
  /// @param source may be null: then nothing is estimated
  explicit USBPowerEstimator(SMCUSBPowerReading* source, const ShellRunning* shell = nullptr)
      : source_(source), shell_(shell) {}

  /// Watts of both sides; a side without a reading, or with a negative one, counts as 0.
  double estimateWatts() const;

  const ShellRunning* shell() const { return shell_; }

 private:
  SMCUSBPowerReading* source_;
  const ShellRunning* shell_;
};

/// A rough figure for the whole machine where nothing measures it: 2.4 W and 0.22 W more for each percent of
/// one core, at least 2 W and at most 65 W.
class BatteryDrainEstimator {
 public:
  /// @param topProcessCPU CPU percentages of the busiest processes, 100 being one fully busy core; negative
  /// ones count 0
  static double estimateTotalDischargeW(const std::vector<double>& topProcessCPU);
};

}  // namespace quenzel
