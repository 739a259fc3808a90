#include <fmt/format.h>

#include "Base/Mutex.hpp"
#include "Platform/EnergyCounterAccess.hpp"
#include "Platform/EnergyModelChannels.hpp"
#include "Platform/Linux/EnergyZoneChannels.hpp"
#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/Linux/ModelledHardware.hpp"

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
      std::vector<EnergyModelChannel> channels = zones_.channels(readRaplZones(sysfsRoot()).readable);
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

std::optional<std::string> energyCounterRefusal() {
  const RaplZones zones = readRaplZones(sysfsRoot());
  if (!zones.readable.empty() || !zones.refused || modelsHardware()) return std::nullopt;
  return fmt::format(
      "not permitted: this machine has energy counters, but only root may read them ({}); to allow your "
      "group "
      "to until the next start: f='{}/class/powercap/intel-rapl:*/energy_uj'; sudo chgrp \"$(id -gn)\" $f && "
      "sudo chmod g+r $f",
      *zones.refused, sysfsRoot());
}

std::unique_ptr<EnergyModelChannels> makeEnergyModelChannels() {
  return std::make_unique<LinuxEnergyModelChannels>();
}

}  // namespace quenzel::platform
