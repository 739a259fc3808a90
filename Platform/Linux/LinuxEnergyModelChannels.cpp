#include "Platform/EnergyModelChannels.hpp"
#include "Platform/Linux/EnergyZoneChannels.hpp"
#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/Linux/ModelledHardware.hpp"
#include "Platform/Mutex.hpp"

namespace quenzel::platform {
namespace {

std::vector<EnergyModelChannel> modelledChannels() {
  const ModelledHardwareState state = readModelledHardware();
  return {{"Energy Model", "Modelled CPU Energy", "uJ", state.packageMicrojoules},
          {"Energy Model", "DRAM modelled", "uJ", state.memoryMicrojoules}};
}

class LinuxEnergyModelChannels final : public EnergyModelChannels {
 public:
  std::optional<std::vector<EnergyModelChannel>> sample() override {
    // Read inside the lock: a reading stored after a later one would look like a wrap.
    {
      const MutexLock guard(lock_);
      std::vector<EnergyModelChannel> channels = zones_.channels(readRaplZones(sysfsRoot()));
      if (!channels.empty()) return channels;
    }
    if (modelsHardware()) return modelledChannels();
    return std::nullopt;
  }

 private:
  Mutex lock_;
  EnergyZoneChannels zones_ GUARDED_BY(lock_);
};

}  // namespace

std::unique_ptr<EnergyModelChannels> makeEnergyModelChannels() {
  return std::make_unique<LinuxEnergyModelChannels>();
}

}  // namespace quenzel::platform
