#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "Platform/Mutex.hpp"
#include "Platform/QuietWrite.hpp"

namespace quenzel::platform {
namespace {

Mutex& settingLock() {
  static Mutex lock;
  return lock;
}

}  // namespace

// The SIGPIPE of a failed write goes to the process, where any thread may take it, so blocking it in this one
// does not help. F_SETNOSIGPIPE of fcntl(2) switches it off for the open file, which other processes may
// share: it is switched back after the write.
ssize_t writeQuietly(int descriptor, std::string_view bytes) noexcept {
  const MutexLock guard(settingLock());
  const bool switchedOff = ::fcntl(descriptor, F_GETNOSIGPIPE) != 0;
  if (!switchedOff) ::fcntl(descriptor, F_SETNOSIGPIPE, 1);
  ssize_t written = 0;
  do {
    written = ::write(descriptor, bytes.data(), bytes.size());
  } while (written < 0 && errno == EINTR);
  const int error = errno;
  if (!switchedOff) ::fcntl(descriptor, F_SETNOSIGPIPE, 0);
  errno = error;
  return written;
}

}  // namespace quenzel::platform
