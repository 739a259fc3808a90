#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include "Base/ScopedResource.hpp"
#include "Platform/FileMode.hpp"

namespace quenzel::platform {

// An O_PATH descriptor (open(2)) names the file without opening it, so what is checked is what is changed;
// its mode is set through the link that proc(5) has of it.
void setPlainFileMode(int folder, const char* name, mode_t mode) noexcept {
  const FileDescriptor file(::openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) return;
  if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || (status.st_mode & 07777) == mode) return;
  ::chmod(("/proc/self/fd/" + std::to_string(file.get())).c_str(), mode);
}

}  // namespace quenzel::platform
