#include "Platform/InstalledTools.hpp"

#include <filesystem>
#include <system_error>

namespace quenzel::platform {

/// Executables are installed in PREFIX/bin, the tools in PREFIX/libexec/quenzel/tools; a build tree holds
/// them as bin and tools side by side.
std::optional<std::string> installedToolRoot() {
  std::error_code failure;
  const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", failure);
  if (failure) return std::nullopt;
  const std::filesystem::path prefix = executable.parent_path().parent_path();
  for (const char* place : {"libexec/quenzel/tools", "tools"}) {
    const std::filesystem::path root = prefix / place;
    if (std::filesystem::is_directory(root, failure)) return root.string();
  }
  return std::nullopt;
}

}  // namespace quenzel::platform
