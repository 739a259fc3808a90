#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quenzel::platform {

/// One cumulative energy counter.
struct EnergyModelChannel {
  /// Stands in `value` for no valid data: what IOReport then gives for a number.
  static constexpr std::int64_t noReading = std::numeric_limits<std::int64_t>::min();

  std::string group;
  std::optional<std::string> name;
  std::optional<std::string> unit;  ///< "mJ", "uJ" or "nJ"
  std::int64_t value = 0;  ///< energy since some fixed moment; never wraps; noReading where there is none

  bool operator==(const EnergyModelChannel&) const = default;
};

/// The machine's energy counters: IOReport's "Energy Model" group on macOS, powercap RAPL zones on Linux.
/// Thread-safe.
class EnergyModelChannels {
 public:
  virtual ~EnergyModelChannels() = default;

  /// All counters now, each label without padding; none when the machine has none or does not let this
  /// process read them.
  virtual std::optional<std::vector<EnergyModelChannel>> sample() = 0;
};

std::unique_ptr<EnergyModelChannels> makeEnergyModelChannels();

}  // namespace quenzel::platform
