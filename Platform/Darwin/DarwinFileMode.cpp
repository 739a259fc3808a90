#include <fcntl.h>
#include <sys/stat.h>

#include "Platform/FileMode.hpp"

namespace quenzel::platform {

void setPlainFileMode(int folder, const char* name, mode_t mode) noexcept {
  struct stat status {};
  if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || (status.st_mode & 07777) == mode) return;
  ::fchmodat(folder, name, mode, AT_SYMLINK_NOFOLLOW);
}

}  // namespace quenzel::platform
