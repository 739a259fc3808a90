#pragma once

#include <vector>

#include "Platform/EnergyModelChannels.hpp"

namespace quenzel {

/// Cumulative energy of each component since some fixed moment, in joules.
struct EnergyTotals {
  double cpu = 0;
  double gpu = 0;
  double ane = 0;
  double dram = 0;
  double memoryFabric = 0;
  double pci = 0;

  bool operator==(const EnergyTotals&) const = default;
};

/// Whether the energy model's rules apply to the channel: it is of the group "Energy Model", with a name and
/// a unit.
bool isEnergyModelChannel(const platform::EnergyModelChannel& channel);

/// The counters added up by component. A channel's component follows from its name; the clusters, cores and
/// other parts that a component's channel includes have names of their own, which belong to none, so that
/// nothing counts twice. A unit other than "mJ", "uJ" and "nJ" counts as nothing.
EnergyTotals energyTotals(const std::vector<platform::EnergyModelChannel>& channels);

}  // namespace quenzel
