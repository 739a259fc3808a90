#include "Platform/Linux/EnergyZoneChannels.hpp"

#include <algorithm>
#include <string_view>

namespace quenzel::platform {
namespace {

constexpr std::string_view zonePrefix = "intel-rapl:";

/// "0" of "intel-rapl:0" and of "intel-rapl:0:1".
std::string packageNumber(std::string_view folder) {
  folder.remove_prefix(zonePrefix.size());
  return std::string(folder.substr(0, folder.find(':')));
}

std::string packageFolder(std::string_view folder) { return std::string(zonePrefix) + packageNumber(folder); }

EnergyModelChannel channel(std::string name, std::int64_t microjoules) {
  return {.group = "Energy Model", .name = std::move(name), .unit = "uJ", .value = microjoules};
}

}  // namespace

void EnergyZoneChannels::add(const RaplZone& zone) {
  const auto [entry, isNew] = counters_.try_emplace(zone.folder, Counter{zone, 0});
  Counter& counter = entry->second;
  if (isNew) return;
  const std::int64_t change = zone.energyMicrojoules - counter.last.energyMicrojoules;
  // Without a range a counter that went back was reset: what it counted in between is lost.
  counter.total += std::max<std::int64_t>(change < 0 ? change + zone.rangeMicrojoules : change, 0);
  counter.last = zone;
}

std::int64_t EnergyZoneChannels::total(const std::string& folder, const char* name) const {
  for (const auto& [partFolder, counter] : counters_) {
    if (counter.last.name == name && packageFolder(partFolder) == folder) return counter.total;
  }
  return 0;
}

std::vector<EnergyModelChannel> EnergyZoneChannels::channels(const std::vector<RaplZone>& zones) {
  for (const RaplZone& zone : zones) add(zone);
  std::vector<EnergyModelChannel> channels;
  for (const auto& [folder, counter] : counters_) {
    const std::string& name = counter.last.name;
    if (name == "psys") {
      channels.push_back(channel(wholeMachineChannelName, counter.total));
    } else if (name == "dram") {
      channels.push_back(channel("DRAM" + packageNumber(folder), counter.total));
    } else if (name == "uncore") {
      const auto package = counters_.find(packageFolder(folder));
      if (package != counters_.end()) {
        channels.push_back(channel(package->second.last.name + " GPU Energy", counter.total));
      }
    } else if (name.starts_with("package")) {
      // Package and part are not read at one instant, so their difference may step back by a hair.
      std::int64_t& shown = processorEnergy_[folder];
      shown = std::max(shown, counter.total - total(folder, "uncore"));
      channels.push_back(channel(name + " CPU Energy", shown));
    }
  }
  return channels;
}

}  // namespace quenzel::platform
