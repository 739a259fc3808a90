#include "Platform/InstalledTools.hpp"

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/TrustedTools.hpp"

namespace quenzel::platform {
namespace {

namespace fs = std::filesystem;

/// A file or folder that nobody can change but root and this process's user. A group of one's own may write
/// what a user has built; for root no group is its own.
bool isTrusted(const fs::path& path, uid_t user) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return false;
  const bool owned = status.st_uid == 0 || status.st_uid == user;
  const bool plain = S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
  const mode_t strangers = user == 0 ? S_IWGRP | S_IWOTH : S_IWOTH;
  return owned && plain && (status.st_mode & strangers) == 0;
}

}  // namespace

std::optional<std::string> trustedToolRoot(const std::string& prefix, uid_t user) {
  for (const char* place : {"libexec/quenzel/tools", "tools"}) {
    const fs::path root = fs::path(prefix) / place;
    std::error_code failure;
    if (!fs::is_directory(root, failure)) continue;
    bool trusted = true;
    for (fs::path folder = root; folder != fs::path(prefix).parent_path(); folder = folder.parent_path())
      trusted = trusted && isTrusted(folder, user);
    const fs::recursive_directory_iterator below(root, failure);
    trusted = trusted && !failure &&
              std::all_of(begin(below), end(below),
                          [&](const fs::directory_entry& entry) { return isTrusted(entry.path(), user); });
    if (trusted) return root.string();
  }
  return std::nullopt;
}

std::optional<std::string> installedToolRoot() {
  std::error_code failure;
  const fs::path executable = fs::read_symlink("/proc/self/exe", failure);
  if (failure) return std::nullopt;
  return trustedToolRoot(executable.parent_path().parent_path().string(), ::geteuid());
}

}  // namespace quenzel::platform
