#include "Platform/InstalledTools.hpp"

namespace quenzel::platform {

std::optional<std::string> installedToolRoot() { return std::nullopt; }

}  // namespace quenzel::platform
