#include "Platform/ApplicationSupport.hpp"
#include "Platform/HomeDirectory.hpp"

namespace quenzel::platform {

std::optional<std::string> applicationSupportDirectory() {
  const auto home = homeDirectory();
  if (!home) return {};
  return *home + "/Library/Application Support";
}

}  // namespace quenzel::platform
