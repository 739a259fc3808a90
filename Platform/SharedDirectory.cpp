#include "Platform/SharedDirectory.hpp"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

#include "Base/ScopedResource.hpp"

namespace quenzel::platform {

bool createSharedDataDirectory(const std::string& path) {
  constexpr mode_t everybody = 0777;
  std::error_code failure;  // shows in what follows
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), failure);
  if (::mkdir(path.c_str(), everybody) != 0) {
    const int reason = errno;
    const bool isThere = std::filesystem::is_directory(
        std::filesystem::symlink_status(path, failure));  // a link leads elsewhere
    errno = reason;
    return isThere;
  }
  // By the opened folder rather than by name: where the folder above is open to all, the name may by now be
  // somebody's link to another place.
  const FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder) ::fchmod(folder.get(), everybody);
  return true;
}

}  // namespace quenzel::platform
