#include "MetricsCollectors/DefaultProcessTerminator.hpp"

#include <cerrno>
#include <string>
#include <system_error>
#include <thread>

#include <fmt/format.h>

#include "Base/ErrorText.hpp"

namespace quenzel {
namespace {

using namespace std::chrono_literals;
using platform::SignalTarget;

constexpr auto exitWait = 350ms;
constexpr auto pollInterval = 20ms;

class SystemSignalOperations final : public SignalOperations {
 public:
  std::unique_ptr<SignalTarget> target(std::int32_t pid) override { return platform::makeSignalTarget(pid); }
  std::chrono::system_clock::time_point now() override { return std::chrono::system_clock::now(); }
  void sleep(std::chrono::microseconds duration) override { std::this_thread::sleep_for(duration); }
};

}  // namespace

SignalOperations& systemSignalOperations() {
  static SystemSignalOperations operations;
  return operations;
}

bool DefaultProcessTerminator::waitForExit(const SignalTarget& target,
                                           std::chrono::milliseconds timeout) const {
  const auto deadline = operations_.now() + timeout;
  // The count bounds the wait even while the wall clock is set back.
  for (auto polls = timeout / pollInterval + 1; polls > 0 && operations_.now() < deadline; --polls) {
    if (const int failure = target.send(0)) return failure == ESRCH;
    operations_.sleep(pollInterval);
  }
  return false;
}

ProcessTerminationResult DefaultProcessTerminator::terminateProcess(std::int32_t pid) const {
  using Result = ProcessTerminationResult;
  if (pid < 1) return Result::failure(fmt::format("Invalid PID {}.", pid));
  const std::unique_ptr<SignalTarget> target = operations_.target(pid);
  if (target->isThisProcess()) {
    return Result::failure(fmt::format("Refusing to terminate the current process ({}).", pid));
  }
  if (const int failure = target->send(0)) {
    if (failure == ESRCH) return Result::success(fmt::format("Process {} is already stopped.", pid));
    return Result::failure(fmt::format("Unable to inspect process {}: {}.", pid, errorText(failure)));
  }
  if (const int failure = target->send(platform::terminationSignal)) {
    if (failure == ESRCH)
      return Result::success(fmt::format("Process {} exited before termination completed.", pid));
    return Result::failure(fmt::format("Unable to terminate process {}: {}.", pid, errorText(failure)));
  }
  if (waitForExit(*target, exitWait)) return Result::success();
  if (const int failure = target->send(platform::killSignal)) {
    if (failure == ESRCH)
      return Result::success(fmt::format("Process {} exited before SIGKILL completed.", pid));
    return Result::failure(fmt::format("Unable to force terminate process {}: {}.", pid, errorText(failure)));
  }
  if (waitForExit(*target, exitWait))
    return Result::success(fmt::format("Process {} required SIGKILL.", pid));
  return Result::failure(fmt::format("Process {} ignored SIGTERM and SIGKILL.", pid));
}

}  // namespace quenzel
