#pragma once

#include <chrono>
#include <cstdint>

#include "MetricsCollectors/ProcessTerminating.hpp"

namespace quenzel {

/// What ending a process needs of the operating system; tests put their own in its place.
class SignalOperations {
 public:
  virtual ~SignalOperations() = default;

  virtual std::int32_t ownPID() = 0;
  /// kill(2); 0, or the errno of the failure. Signal 0 only asks whether the process can be signalled.
  virtual int send(std::int32_t pid, int signal) = 0;
  /// The wall clock.
  virtual std::chrono::system_clock::time_point now() = 0;
  virtual void sleep(std::chrono::microseconds duration) = 0;
};

/// The operations of this system.
SignalOperations& systemSignalOperations();

/// SIGTERM, up to 0.35 s for the process to go, SIGKILL, up to 0.35 s more. A process that is gone at any
/// step counts as a success. A zombie still answers kill(2) and so counts as running. Stateless; blocks for
/// at most about 0.7 s.
class DefaultProcessTerminator final : public ProcessTerminating {
 public:
  explicit DefaultProcessTerminator(SignalOperations& operations = systemSignalOperations())
      : operations_(operations) {}

  ProcessTerminationResult terminateProcess(std::int32_t pid) const override;

 private:
  bool waitForExit(std::int32_t pid, std::chrono::milliseconds timeout) const;

  SignalOperations& operations_;
};

}  // namespace quenzel
