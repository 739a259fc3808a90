#include "Platform/Linux/RaplZones.hpp"

#include "Platform/Linux/KernelFiles.hpp"

namespace quenzel::platform {

std::vector<RaplZone> readRaplZones(const std::string& sysfsRoot) {
  std::vector<RaplZone> zones;
  const std::string root = sysfsRoot + "/class/powercap";
  for (const std::string& folder : folderEntries(root)) {
    if (!folder.starts_with("intel-rapl:")) continue;
    const std::string path = root + '/' + folder;
    const std::optional<std::string> name = fileValue(path + "/name");
    const std::optional<std::int64_t> energy = fileInteger(path + "/energy_uj");
    if (name && energy) {
      zones.push_back({folder, *name, *energy, fileInteger(path + "/max_energy_range_uj").value_or(0)});
    }
  }
  return zones;
}

}  // namespace quenzel::platform
