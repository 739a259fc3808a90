#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quenzel::platform {

/// One energy counter of the processor's running average power limit interface, as the powercap framework
/// shows it (Documentation/power/powercap/powercap.rst of the kernel): /sys/class/powercap/intel-rapl:<n> for
/// a package or the whole platform ("psys"), intel-rapl:<n>:<m> for a part of a package ("core", "uncore",
/// "dram"). AMD processors appear under the same names. The memory-mapped twins (intel-rapl-mmio) count the
/// same energy and are left out.
struct RaplZone {
  std::string folder;                  ///< "intel-rapl:0:1"
  std::string name;                    ///< "package-0", "core", "uncore", "dram", "psys"
  std::int64_t energyMicrojoules = 0;  ///< begins again at 0 beyond the range
  std::int64_t rangeMicrojoules = 0;   ///< 0 where it is unknown

  bool operator==(const RaplZone&) const = default;
};

struct RaplZones {
  std::vector<RaplZone> readable;      ///< in the order of their folders
  std::optional<std::string> refused;  ///< the file of a counter that this process may not read
};

/// The zones of the machine. Since their counters give away what a processor computes, kernels let only root
/// read them: usually all are readable, or none.
RaplZones readRaplZones(const std::string& sysfsRoot);

}  // namespace quenzel::platform
