#include "Platform/FileStatus.hpp"

#include <sys/stat.h>
#include <unistd.h>

namespace quenzel::platform {
namespace {

FileStatus::Kind kindOf(mode_t mode) {
  using enum FileStatus::Kind;
  if (S_ISREG(mode)) return regular;
  if (S_ISLNK(mode)) return symbolicLink;
  return S_ISDIR(mode) ? folder : other;
}

}  // namespace

std::optional<FileStatus> fileStatus(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
  return FileStatus{.kind = kindOf(status.st_mode),
                    .identity = {static_cast<std::uint64_t>(status.st_dev), status.st_ino},
                    .ownerID = status.st_uid,
                    .hardLinks = status.st_nlink};
}

bool mayExecute(const std::string& path) { return ::access(path.c_str(), X_OK) == 0; }

bool mayWriteFolder(const std::string& path) { return ::access(path.c_str(), W_OK | X_OK) == 0; }

}  // namespace quenzel::platform
