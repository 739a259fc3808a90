#include "Platform/EnergyCounterAccess.hpp"

namespace quenzel::platform {

std::optional<std::string> energyCounterRefusal() { return std::nullopt; }

}  // namespace quenzel::platform
