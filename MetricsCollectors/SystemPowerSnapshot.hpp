#pragma once

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

/// What the main on-chip components drew over one interval. All powers in watts, none negative; all are 0 for
/// the first sample of a reader, for an interval without length, and where the counters can't be read.
struct SystemPowerSnapshot {
  double cpuW = 0;
  double gpuW = 0;
  double aneW = 0;  ///< neural engine
  double dramW = 0;
  double memoryFabricW = 0;
  double ramW = 0;  ///< memory fabric and DRAM
  double pciW = 0;
  double displayW = 0;       ///< always 0: no energy counter knows it
  double totalTrackedW = 0;  ///< CPU, GPU, neural engine, DRAM and PCI; by decision without the memory fabric
  double intervalSeconds = 0;  ///< since the sample before
  bool supported = false;      ///< whether the counters could be read

  bool operator==(const SystemPowerSnapshot&) const = default;
};

nlohmann::ordered_json encodeSystemPowerSnapshot(const SystemPowerSnapshot& snapshot);

}  // namespace quenzel
