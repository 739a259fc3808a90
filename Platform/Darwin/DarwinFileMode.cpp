#include <fcntl.h>
#include <sys/stat.h>

#include "Platform/FileMode.hpp"

namespace quenzel::platform {

// The two look-ups stay two: a path by number ("/.vol/...") is turned back into names and those are looked up
// once more, so it binds nothing, and a descriptor for events only (O_EVTONLY) is one whose closing drops
// locks.
void setPlainFileMode(int folder, const char* name, mode_t mode) noexcept {
  struct stat status {};
  if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || (status.st_mode & 07777) == mode) return;
  ::fchmodat(folder, name, mode, AT_SYMLINK_NOFOLLOW);
}

}  // namespace quenzel::platform
