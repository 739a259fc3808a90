#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Platform/EnergyModelChannels.hpp"

namespace quenzel {

/// What a machine's energy counters have counted, reading by reading. A counter may have no valid data for a
/// while, from the first reading on, too. It then stands still: it would otherwise seem to fall to nothing,
/// or to rise at once by all that it has counted since the machine started. Not thread-safe.
class EnergyCounters {
 public:
  /// Puts what each counter has counted in the place of its reading. Counters are told apart by group and
  /// name, those of one group and name by their order.
  void replaceMissingReadings(std::vector<platform::EnergyModelChannel>& channels);

 private:
  using Name = std::tuple<std::string, std::optional<std::string>>;
  struct Counter {
    std::int64_t counted(std::int64_t reading);

    std::optional<std::int64_t> last;
    std::int64_t origin = 0;  ///< other than 0 only where the first reading was missing
    bool startedWithoutReading = false;
  };

  std::map<std::pair<Name, std::size_t>, Counter> counters_;
};

}  // namespace quenzel
