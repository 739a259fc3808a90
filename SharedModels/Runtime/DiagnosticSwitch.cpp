#include "SharedModels/Runtime/DiagnosticSwitch.hpp"

#include <filesystem>
#include <system_error>

#include "Platform/Environment.hpp"

namespace quenzel {

bool isDiagnosticSwitchOn(const char* environmentName, const char* flagFile) {
  std::error_code failure;
  return platform::environmentValue(environmentName) == "1" || std::filesystem::exists(flagFile, failure);
}

}  // namespace quenzel
