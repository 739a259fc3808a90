#pragma once

#include <optional>
#include <string>

namespace quenzel::platform {

/// Why the system keeps the machine's energy counters from this process, and what lifts that, in one line for
/// a person; none where it may read them, and where there are none. On macOS every user may. Thread-safe.
std::optional<std::string> energyCounterRefusal();

}  // namespace quenzel::platform
