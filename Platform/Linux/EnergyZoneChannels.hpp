#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Platform/EnergyModelChannels.hpp"
#include "Platform/Linux/RaplZones.hpp"

namespace quenzel::platform {

/// Name of the channel that carries the energy of the whole machine.
inline constexpr const char* wholeMachineChannelName = "psys";

/// Turns readings of wrapping counters into channels that only grow, from 0 at the first reading of each
/// zone.
///
/// A package without its graphics part becomes "<package> CPU Energy", the graphics part (uncore) "<package>
/// GPU Energy", memory "DRAM<package number>", the whole platform "psys", all in µJ. Cores are part of their
/// package and have no channel. A zone that can't be read for once keeps its value. Between two readings a
/// counter may wrap once, which at full load takes minutes at least. Not thread-safe.
class EnergyZoneChannels {
 public:
  std::vector<EnergyModelChannel> channels(const std::vector<RaplZone>& zones);

 private:
  struct Counter {
    RaplZone last;
    std::int64_t total = 0;
  };

  void add(const RaplZone& zone);
  std::int64_t total(const std::string& folder, const char* name) const;

  std::map<std::string, Counter> counters_;              // by folder
  std::map<std::string, std::int64_t> processorEnergy_;  // by package folder: what its channel showed last
};

}  // namespace quenzel::platform
