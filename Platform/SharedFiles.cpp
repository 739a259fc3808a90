#include "Platform/SharedFiles.hpp"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

#include "Base/ScopedResource.hpp"
#include "Platform/FileMode.hpp"

namespace quenzel::platform {
namespace {

constexpr mode_t folderMode = 0777;
constexpr mode_t fileMode = 0666;

FileDescriptor openFolder(const std::string& path) {
  return FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace

bool createSharedDataDirectory(const std::string& path) {
  std::error_code failure;  // shows in what follows
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), failure);
  if (::mkdir(path.c_str(), folderMode) != 0) {
    const int reason = errno;
    const bool isThere = std::filesystem::is_directory(
        std::filesystem::symlink_status(path, failure));  // a link leads elsewhere
    errno = reason;
    return isThere;
  }
  // By the opened folder rather than by name: where the folder above is open to all, the name may by now be
  // somebody's link to another place.
  const FileDescriptor folder = openFolder(path);
  if (folder) ::fchmod(folder.get(), folderMode);
  return true;
}

int createSharedFile(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, fileMode));
  if (!file) return errno;
  ::fchmod(file.get(), fileMode);
  return 0;
}

void openToEverybody(const std::string& folder, const std::vector<std::string>& fileNames) noexcept {
  const FileDescriptor opened = openFolder(folder);
  if (!opened) return;
  ::fchmod(opened.get(), folderMode);
  for (const std::string& name : fileNames) setPlainFileMode(opened.get(), name.c_str(), fileMode);
}

}  // namespace quenzel::platform
