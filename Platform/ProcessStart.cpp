#include "Platform/ProcessStart.hpp"

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace quenzel::platform {

void prepareProcess() noexcept {
  int descriptor = -1;
  do {
    descriptor = ::open("/dev/null", O_RDWR);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) ::close(descriptor);
  std::signal(SIGCHLD, SIG_DFL);
}

}  // namespace quenzel::platform
