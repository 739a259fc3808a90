#include "Platform/AppendFile.hpp"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include "Base/ScopedResource.hpp"
#include "Platform/QuietWrite.hpp"

namespace quenzel::platform {

int appendToFile(const std::string& path, std::string_view bytes, mode_t mode) {
  const FileDescriptor file(::open(
      path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode));
  if (!file) return errno;
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode) || status.st_nlink > 1) return EPERM;
  return writeQuietly(file.get(), bytes);
}

}  // namespace quenzel::platform
