#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Base/Mutex.hpp"
#include "Platform/BatteryRegistry.hpp"
#include "SharedModels/Snapshot/BatteryStatusSample.hpp"

namespace quenzel {

/// Reads the battery straight from the system's power sources and registry, without running a tool.
/// Thread-safe: one reading at a time.
class DirectBatteryStatusReader {
 public:
  explicit DirectBatteryStatusReader(
      std::unique_ptr<platform::BatteryRegistry> registry = platform::makeBatteryRegistry());

  /// None when the machine has no battery.
  std::optional<BatteryStatusSample> sample();

  /// The charge level in percent: what the system displays where that makes sense, else the gauge's raw
  /// capacities.
  static double resolveLevelPercent(std::optional<std::int64_t> displayCurrentCapacity,
                                    std::optional<std::int64_t> displayMaxCapacity,
                                    std::optional<std::int64_t> rawCurrentCapacityMah,
                                    std::optional<std::int64_t> rawMaxCapacityMah, bool isCharged);

 private:
  Mutex lock_;
  const std::unique_ptr<platform::BatteryRegistry> registry_ GUARDED_BY(lock_);
};

}  // namespace quenzel
