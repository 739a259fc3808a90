#include "MetricsCollectors/EnergyCounters.hpp"

namespace quenzel {

void EnergyCounters::replaceMissingReadings(std::vector<platform::EnergyModelChannel>& channels) {
  std::map<Name, std::size_t> ofThatName;
  for (platform::EnergyModelChannel& channel : channels) {
    const Name name(channel.group, channel.name);
    channel.value = counters_[{name, ofThatName[name]++}].counted(channel.value);
  }
}

std::int64_t EnergyCounters::Counter::counted(std::int64_t reading) {
  if (reading == platform::EnergyModelChannel::noReading) {
    if (!last) startedWithoutReading = true;
  } else {
    if (!last && startedWithoutReading) origin = reading;
    last = reading;
  }
  if (!last) return 0;
  // No machine's counters are so far apart that this wraps; a capture's may be.
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(*last) - static_cast<std::uint64_t>(origin));
}

}  // namespace quenzel
