#pragma once

#include <optional>

namespace quenzel {

// Power figures of the System Management Controller, in watts; none where the machine does not report one.
// Each implementation sees to its own locking.

class SMCTotalPowerReading {
 public:
  virtual ~SMCTotalPowerReading() = default;
  /// The whole system's input power.
  virtual std::optional<double> readSystemTotalPowerWatts() = 0;
};

class SMCDisplayPowerReading {
 public:
  virtual ~SMCDisplayPowerReading() = default;
  virtual std::optional<double> readDisplayPowerWatts() = 0;
};

class SMCUSBPowerReading {
 public:
  virtual ~SMCUSBPowerReading() = default;
  virtual std::optional<double> readThunderboltLeftPowerWatts() = 0;
  virtual std::optional<double> readThunderboltRightPowerWatts() = 0;
};

}  // namespace quenzel
