#include "Platform/StopSignals.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Base/MonotonicClock.hpp"
#include "Platform/SubprocessSupport.hpp"

namespace quenzel::platform {
namespace {

// The one thing that the handler can reach.
std::atomic<int> pipeOfHandler{-1};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler may touch no lock");

void handle(int) noexcept {
  const int saved = errno;
  // A full pipe is as good a notice as one more byte.
  [[maybe_unused]] const auto written = ::write(pipeOfHandler.load(), "", 1);
  errno = saved;
}

/// Milliseconds as poll(2) takes them, rounded up so that no wait ends early; a longer one is taken up again.
int pollTimeout(double seconds) {
  constexpr double mostMilliseconds = 1e9;
  return static_cast<int>(std::ceil(std::clamp(seconds * 1000, 0.0, mostMilliseconds)));
}

}  // namespace

StopSignals::StopSignals() : formerInterrupt_{}, formerTerminate_{} {
  auto pipe = makePipe();
  if (!pipe || ::fcntl(pipe->second.get(), F_SETFL, O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "can't prepare for signals");
  }
  readEnd_ = std::move(pipe->first);
  writeEnd_ = std::move(pipe->second);
  pipeOfHandler = writeEnd_.get();
  struct sigaction action {};
  action.sa_handler = handle;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);  // unqualified: a macro on macOS
  ::sigaction(SIGINT, &action, &formerInterrupt_);
  ::sigaction(SIGTERM, &action, &formerTerminate_);
}

StopSignals::~StopSignals() {
  ::sigaction(SIGINT, &formerInterrupt_, nullptr);
  ::sigaction(SIGTERM, &formerTerminate_, nullptr);
  pipeOfHandler = -1;
}

bool StopSignals::waitFor(double seconds) const {
  const double deadline = monotonicSeconds() + seconds;
  pollfd arrival{readEnd_.get(), POLLIN, 0};
  for (double left = seconds;; left = deadline - monotonicSeconds()) {
    // The byte stays in the pipe: a wish to end is never taken back.
    if (::poll(&arrival, 1, pollTimeout(left)) > 0) return true;
    if (left <= 0) return false;
  }
}

}  // namespace quenzel::platform
