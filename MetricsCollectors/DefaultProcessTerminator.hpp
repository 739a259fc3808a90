#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "MetricsCollectors/ProcessTerminating.hpp"
#include "Platform/SignalTarget.hpp"

namespace quenzel {

/// What ending a process needs of the operating system; tests supply their own.
class SignalOperations {
 public:
  virtual ~SignalOperations() = default;

  virtual std::unique_ptr<platform::SignalTarget> target(std::int32_t pid) = 0;
  /// The wall clock.
  virtual std::chrono::system_clock::time_point now() = 0;
  virtual void sleep(std::chrono::microseconds duration) = 0;
};

/// The operations of this system.
SignalOperations& systemSignalOperations();

/// SIGTERM, up to 0.35 s for the process to exit, SIGKILL, up to 0.35 s more. A process that is gone at any
/// step counts as a success. A zombie can still be signalled and so counts as running. The process that this
/// code runs in is refused, whichever of its numbers is given. Stateless; blocks for at most about 0.7 s.
class DefaultProcessTerminator final : public ProcessTerminating {
 public:
  explicit DefaultProcessTerminator(SignalOperations& operations = systemSignalOperations())
      : operations_(operations) {}

  ProcessTerminationResult terminateProcess(std::int32_t pid) const override;

 private:
  bool waitForExit(const platform::SignalTarget& target, std::chrono::milliseconds timeout) const;

  SignalOperations& operations_;
};

}  // namespace quenzel
