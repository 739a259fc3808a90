#include "MetricsCollectors/AppleSiliconPowerReader.hpp"

#include <string>
#include <utility>

#include "Base/Number.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"

namespace quenzel {
namespace {

constexpr const char* logCategory = "AppleSiliconPowerReader";

/// @param seconds more than 0
SystemPowerSnapshot powersBetween(const EnergyTotals& previous, const EnergyTotals& current, double seconds) {
  const auto watts = [&](double EnergyTotals::*component) {
    return nonNegative((current.*component - previous.*component) / seconds);
  };
  SystemPowerSnapshot snapshot;
  snapshot.cpuW = watts(&EnergyTotals::cpu);
  snapshot.gpuW = watts(&EnergyTotals::gpu);
  snapshot.aneW = watts(&EnergyTotals::ane);
  snapshot.dramW = watts(&EnergyTotals::dram);
  snapshot.memoryFabricW = watts(&EnergyTotals::memoryFabric);
  snapshot.pciW = watts(&EnergyTotals::pci);
  snapshot.ramW = snapshot.memoryFabricW + snapshot.dramW;
  snapshot.totalTrackedW = snapshot.cpuW + snapshot.gpuW + snapshot.aneW + snapshot.dramW + snapshot.pciW;
  return snapshot;
}

}  // namespace

AppleSiliconPowerReader::AppleSiliconPowerReader(std::unique_ptr<platform::EnergyModelChannels> channels,
                                                 platform::SystemLog& logger)
    : channels_(std::move(channels)), logger_(logger) {}

SystemPowerSnapshot AppleSiliconPowerReader::sample(PointInTime now) {
  const MutexLock guard(lock_);
  auto channels = channels_->sample();
  if (!channels) return {};
  counters_.replaceMissingReadings(*channels);
  if (!hasLoggedChannelNames_) logChannelNames(*channels);

  const EnergyTotals totals = energyTotals(*channels);
  const double seconds = lastSampleAt_ ? nonNegative(now - *lastSampleAt_) : 0;
  SystemPowerSnapshot snapshot;
  if (previousTotals_ && seconds > 0) snapshot = powersBetween(*previousTotals_, totals, seconds);
  snapshot.intervalSeconds = seconds;
  snapshot.supported = true;
  previousTotals_ = totals;
  lastSampleAt_ = now;
  return snapshot;
}

void AppleSiliconPowerReader::logChannelNames(const std::vector<platform::EnergyModelChannel>& channels) {
  std::string names;
  for (const platform::EnergyModelChannel& channel : channels) {
    if (isEnergyModelChannel(channel)) names.append(names.empty() ? "" : ", ").append(*channel.name);
  }
  if (names.empty()) return;
  logger_.write(AppConfiguration::Logging::subsystem(), logCategory, platform::SystemLogType::debug,
                "IOReport Energy Model channels: " + names);
  hasLoggedChannelNames_ = true;
}

}  // namespace quenzel
