#include "Base/Environment.hpp"
#include "Platform/ApplicationSupport.hpp"
#include "Platform/HomeDirectory.hpp"

namespace quenzel::platform {

std::optional<std::string> applicationSupportDirectory() {
  // A relative path there is to be ignored.
  const auto data = environmentValue("XDG_DATA_HOME");
  if (data && data->starts_with('/')) return data;
  const auto home = homeDirectory();
  if (!home) return {};
  return *home + "/.local/share";
}

}  // namespace quenzel::platform
