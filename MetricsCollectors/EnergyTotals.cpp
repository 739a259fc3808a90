#include "MetricsCollectors/EnergyTotals.hpp"

#include <string_view>

namespace quenzel {
namespace {

/// Where a channel of that name counts, or null; the first rule that matches decides.
double EnergyTotals::*componentOf(std::string_view name) {
  struct Rule {
    std::string_view prefix;
    std::string_view suffix;
    double EnergyTotals::*component;
  };
  static constexpr Rule rules[] = {
      {"", "CPU Energy", &EnergyTotals::cpu}, {"", "GPU Energy", &EnergyTotals::gpu},
      {"ANE", "", &EnergyTotals::ane},        {"DRAM", "", &EnergyTotals::dram},
      {"PCI", "Energy", &EnergyTotals::pci},  {"AMCC", "", &EnergyTotals::memoryFabric},
  };
  for (const Rule& rule : rules) {
    if (name.starts_with(rule.prefix) && name.ends_with(rule.suffix)) return rule.component;
  }
  return nullptr;
}

double joules(std::int64_t value, std::string_view unit) {
  const auto amount = static_cast<double>(value);
  if (unit == "mJ") return amount / 1e3;
  if (unit == "uJ") return amount / 1e6;
  if (unit == "nJ") return amount / 1e9;
  return 0;
}

}  // namespace

bool isEnergyModelChannel(const platform::EnergyModelChannel& channel) {
  return channel.group == "Energy Model" && channel.name && channel.unit;
}

EnergyTotals energyTotals(const std::vector<platform::EnergyModelChannel>& channels) {
  EnergyTotals totals;
  for (const platform::EnergyModelChannel& channel : channels) {
    if (!isEnergyModelChannel(channel)) continue;
    if (const auto component = componentOf(*channel.name)) {
      totals.*component += joules(channel.value, *channel.unit);
    }
  }
  return totals;
}

}  // namespace quenzel
