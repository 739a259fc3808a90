#include "Platform/HardwareModel.hpp"
#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/Linux/PlatformProfile.hpp"
#include "Platform/Linux/PowerSupplies.hpp"
#include "Platform/Linux/RaplZones.hpp"

namespace quenzel::platform {

ModelledHardware modelledHardware() {
  if (!modelsHardware()) return {};
  return {.battery = readPowerSupplies(sysfsRoot()).batteries.empty(),
          .powerCounters = readRaplZones(sysfsRoot()).readable.empty(),
          .lowPowerMode = !lowPowerProfile(sysfsRoot())};
}

}  // namespace quenzel::platform
