#include "SharedModels/Runtime/DiagnosticSwitch.hpp"

#include <filesystem>
#include <system_error>

#include "Base/Environment.hpp"

namespace quenzel {

bool isDiagnosticSwitchOn(const char* environmentName, const char* flagFile) {
  std::error_code failure;
  return environmentValue(environmentName) == "1" || std::filesystem::exists(flagFile, failure);
}

}  // namespace quenzel
