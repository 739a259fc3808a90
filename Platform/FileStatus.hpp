#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quenzel::platform {

/// What stands at a path, a symbolic link itself rather than what it leads to (lstat(2)).
struct FileStatus {
  enum class Kind { regular, symbolicLink, folder, other };

  /// Tells a file from every other one that exists at the same time.
  struct Identity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    bool operator==(const Identity&) const = default;
  };

  Kind kind = Kind::other;
  Identity identity;
  std::uint32_t ownerID = 0;
  std::uint64_t hardLinks = 0;
};

/// None where nothing stands, or where this process may not look.
std::optional<FileStatus> fileStatus(const std::string& path);

/// Whether this process may execute the file, and whether it may make files in the folder.
bool mayExecute(const std::string& path);
bool mayWriteFolder(const std::string& path);

}  // namespace quenzel::platform
