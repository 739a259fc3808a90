#include <cerrno>
#include <csignal>
#include <string>
#include <string_view>
#include <utility>

#include <sys/syscall.h>
#include <unistd.h>

#include "Base/Number.hpp"
#include "Base/ScopedResource.hpp"
#include "Base/Text.hpp"
#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/SignalTarget.hpp"

namespace quenzel::platform {
namespace {

int errorOf(long result) { return result == 0 ? 0 : errno; }

bool isOwnThread(pid_t id) { return ::syscall(SYS_tgkill, ::getpid(), id, 0) == 0; }

/// The process that a thread belongs to, by proc(5); none when there is no such thread any more.
std::optional<pid_t> processOfThread(pid_t thread) {
  const std::optional<std::string> status = fileText("/proc/" + std::to_string(thread) + "/status");
  std::string_view rest = status ? std::string_view(*status) : std::string_view();
  while (!rest.empty()) {
    std::string_view value = nextPiece(rest, '\n');
    if (nextPiece(value, ':') == "Tgid") return parseInteger<pid_t>(trimmedASCII(value));
  }
  return std::nullopt;
}

/// A process by its descriptor, pidfd_open(2).
class LinuxSignalTarget final : public SignalTarget {
 public:
  explicit LinuxSignalTarget(pid_t pid) {
    open(pid);
    // What the kernel says of a thread that is not the first of its process (ENOENT since Linux 6.15).
    if (failure_ != EINVAL && failure_ != ENOENT) return;
    if (const std::optional<pid_t> process = processOfThread(pid)) open(*process);
  }

  bool isThisProcess() const override { return pid_ == ::getpid() || (!descriptor_ && isOwnThread(pid_)); }

  int send(int signal) const override {
    if (descriptor_) return errorOf(::syscall(SYS_pidfd_send_signal, descriptor_.get(), signal, nullptr, 0));
    if (failure_ == ESRCH) return ESRCH;
    // Without a descriptor the number is all there is. It may have passed to a thread of this process.
    return isOwnThread(pid_) ? ESRCH : errorOf(::kill(pid_, signal));
  }

 private:
  void open(pid_t pid) {
    pid_ = pid;
    descriptor_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    failure_ = descriptor_ ? 0 : errno;
  }

  pid_t pid_ = -1;
  FileDescriptor descriptor_;
  int failure_ = 0;
};

}  // namespace

std::unique_ptr<SignalTarget> makeSignalTarget(std::int32_t pid) {
  return std::make_unique<LinuxSignalTarget>(pid);
}

}  // namespace quenzel::platform
