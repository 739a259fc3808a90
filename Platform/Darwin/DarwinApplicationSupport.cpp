#include "Platform/ApplicationSupport.hpp"
#include "Platform/Environment.hpp"

namespace quenzel::platform {

std::optional<std::string> applicationSupportDirectory() {
  const auto home = environmentValue("HOME");
  if (!home || !home->starts_with('/')) return {};
  return *home + "/Library/Application Support";
}

}  // namespace quenzel::platform
