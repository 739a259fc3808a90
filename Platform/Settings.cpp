#include "Platform/Settings.hpp"

#include <filesystem>
#include <system_error>

#include "Base/Environment.hpp"
#include "Platform/InstalledTools.hpp"

namespace quenzel::platform {
namespace {

std::optional<std::string> folderSetting(const char* name) {
  std::optional<std::string> value = environmentValue(name);
  if (!value || value->empty()) return std::nullopt;
  while (value->size() > 1 && value->back() == '/') value->pop_back();
  return value;
}

/// A folder that stays the same one wherever a child runs.
std::string absolute(const std::string& folder) {
  std::error_code failure;
  const std::filesystem::path path = std::filesystem::absolute(folder, failure);
  return failure ? folder : path.string();
}

}  // namespace

std::string sharedDirectory() { return folderSetting("QZL_SHARED_DIRECTORY").value_or("/Users/Shared"); }

std::optional<std::string> toolRoot() {
  if (auto root = folderSetting("QZL_TOOL_ROOT")) return absolute(*root);
  return installedToolRoot();
}

std::string socketDirectory() { return folderSetting("QZL_SOCKET_DIRECTORY").value_or("/run/quenzel"); }

}  // namespace quenzel::platform
