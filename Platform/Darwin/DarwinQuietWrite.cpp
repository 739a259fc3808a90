#include <fcntl.h>
#include <unistd.h>

#include "Base/Mutex.hpp"
#include "Base/WriteAll.hpp"
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
int writeQuietly(int descriptor, std::string_view bytes) noexcept {
  const MutexLock guard(settingLock());
  const bool switchedOff = ::fcntl(descriptor, F_GETNOSIGPIPE) != 0;
  if (!switchedOff) ::fcntl(descriptor, F_SETNOSIGPIPE, 1);
  const int error = writeAll(descriptor, bytes);
  if (!switchedOff) ::fcntl(descriptor, F_SETNOSIGPIPE, 0);
  return error;
}

}  // namespace quenzel::platform
