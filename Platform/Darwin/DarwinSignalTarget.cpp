#include <cerrno>
#include <csignal>

#include <unistd.h>

#include "Platform/SignalTarget.hpp"

namespace quenzel::platform {
namespace {

/// Threads have no PIDs here, and there is no way to signal a process but by its PID.
class DarwinSignalTarget final : public SignalTarget {
 public:
  explicit DarwinSignalTarget(pid_t pid) : pid_(pid) {}

  bool isThisProcess() const override { return pid_ == ::getpid(); }
  int send(int signal) const override { return ::kill(pid_, signal) == 0 ? 0 : errno; }

 private:
  const pid_t pid_;
};

}  // namespace

std::unique_ptr<SignalTarget> makeSignalTarget(std::int32_t pid) {
  return std::make_unique<DarwinSignalTarget>(pid);
}

}  // namespace quenzel::platform
