#include <csignal>
#include <ctime>

#include <unistd.h>

#include "Base/WriteAll.hpp"
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
    constexpr timespec noWait{};
    while (::sigtimedwait(&taken_, nullptr, &noWait) > 0) {
    }
    ::pthread_sigmask(SIG_SETMASK, &former_, nullptr);
  }
  WriteSignalBlock(const WriteSignalBlock&) = delete;
  WriteSignalBlock& operator=(const WriteSignalBlock&) = delete;

 private:
  sigset_t taken_{};
  sigset_t former_{};
};

}  // namespace

int writeQuietly(int descriptor, std::string_view bytes) noexcept {
  const WriteSignalBlock block;
  return writeAll(descriptor, bytes);
}

}  // namespace quenzel::platform
