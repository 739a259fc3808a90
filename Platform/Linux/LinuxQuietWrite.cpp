#include <cerrno>
#include <csignal>
#include <ctime>

#include <unistd.h>

#include "Platform/QuietWrite.hpp"

namespace quenzel::platform {
namespace {

bool isPending(int signal) {
  sigset_t pending;
  return ::sigpending(&pending) == 0 && ::sigismember(&pending, signal) == 1;
}

/// Blocks the signals that a failing write sends to its own thread, SIGPIPE and SIGXFSZ (the file has reached
/// the size limit of this process), and takes back those that came meanwhile.
class WriteSignalBlock {
 public:
  WriteSignalBlock() {
    ::sigemptyset(&taken_);
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
      if (!isPending(signal)) ::sigaddset(&taken_, signal);  // one that waits already is not ours to take
    }
    ::pthread_sigmask(SIG_BLOCK, &taken_, &former_);
  }
  ~WriteSignalBlock() {
    const int error = errno;
    constexpr timespec noWait{};
    while (::sigtimedwait(&taken_, nullptr, &noWait) > 0) {
    }
    ::pthread_sigmask(SIG_SETMASK, &former_, nullptr);
    errno = error;
  }
  WriteSignalBlock(const WriteSignalBlock&) = delete;
  WriteSignalBlock& operator=(const WriteSignalBlock&) = delete;

 private:
  sigset_t taken_{};
  sigset_t former_{};
};

}  // namespace

ssize_t writeQuietly(int descriptor, std::string_view bytes) noexcept {
  const WriteSignalBlock block;
  ssize_t written = 0;
  do {
    written = ::write(descriptor, bytes.data(), bytes.size());
  } while (written < 0 && errno == EINTR);
  return written;
}

}  // namespace quenzel::platform
