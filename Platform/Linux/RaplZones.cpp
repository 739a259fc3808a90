#include "Platform/Linux/RaplZones.hpp"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "Platform/Linux/KernelFiles.hpp"

namespace quenzel::platform {
namespace {

bool isRefused(const std::string& file) {
  return ::faccessat(AT_FDCWD, file.c_str(), R_OK, AT_EACCESS) != 0 && (errno == EACCES || errno == EPERM);
}

}  // namespace

RaplZones readRaplZones(const std::string& sysfsRoot) {
  RaplZones zones;
  const std::string root = sysfsRoot + "/class/powercap";
  for (const std::string& folder : folderEntries(root)) {
    if (!folder.starts_with("intel-rapl:")) continue;
    const std::string path = root + '/' + folder;
    const std::optional<std::string> name = fileValue(path + "/name");
    const std::string counter = path + "/energy_uj";
    const std::optional<std::int64_t> energy = fileInteger(counter);
    if (name && energy) {
      zones.readable.push_back(
          {folder, *name, *energy, fileInteger(path + "/max_energy_range_uj").value_or(0)});
    } else if (!zones.refused && isRefused(counter)) {
      zones.refused = counter;
    }
  }
  return zones;
}

}  // namespace quenzel::platform
