#include "Platform/AppendFile.hpp"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include "Platform/FileDescriptor.hpp"
#include "Platform/QuietWrite.hpp"

namespace quenzel::platform {

int appendToFile(const std::string& path, std::string_view bytes, mode_t mode) {
  const FileDescriptor file(::open(
      path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode));
  if (!file.valid()) return errno;
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode) || status.st_nlink > 1) return EPERM;
  while (!bytes.empty()) {
    const ssize_t written = writeQuietly(file.get(), bytes);
    if (written <= 0) return written < 0 ? errno : EIO;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace quenzel::platform
