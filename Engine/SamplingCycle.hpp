#pragma once

#include <string>
#include <vector>

#include "MetricsCollectors/AppleSiliconPowerReader.hpp"
#include "MetricsCollectors/DirectBatteryStatusReader.hpp"
#include "MetricsCollectors/LiveAttributionInputBuilder.hpp"
#include "MetricsCollectors/SMCReader.hpp"
#include "MetricsCollectors/ShellRunning.hpp"
#include "Platform/HardwareModel.hpp"

namespace quenzel {

/// A source that gave nothing in one cycle, and why.
struct UnavailableSource {
  std::string source;
  std::string reason;
  bool isRefusal = false;  ///< it is there, and this user may not read it; the reason names the remedy

  bool operator==(const UnavailableSource&) const = default;
};

/// What one sampling cycle found out.
struct SamplingCycleResult {
  AttributionBuildResult build;
  bool hasBattery = false;        ///< whether the machine has one, read or not
  bool onBattery = false;         ///< the answer by which the total was chosen
  bool batteryLevelKnown = true;  ///< false where the status's level stands for none
  std::vector<UnavailableSource> unavailable;
  SystemPowerSnapshot componentPower;   ///< since the cycle before, at first since the cycles were set up
  platform::ModelledHardware modelled;  ///< hardware whose figures are modelled, not measured
};

/// The engine's collectors put together for this machine, run once a cycle. Not thread-safe; a cycle blocks
/// for as long as the tools run.
class SamplingCycle {
 public:
  /// @param shell outlives the cycle
  explicit SamplingCycle(const ShellRunning& shell);

  /// @throws ShellRunnerError when the processes can't be listed
  SamplingCycleResult run();

 private:
  const ShellRunning& shell_;
  ProcessSampler processSampler_;
  SMCReader smc_;
  DirectBatteryStatusReader directBattery_;
  AppleSiliconPowerReader componentPower_;
};

/// Where the total of a build comes from: "IOKit" (the battery measures it), "PM-Package+Components" or
/// "none".
std::string_view totalPowerSource(const AttributionBuildResult& build);

}  // namespace quenzel
