#pragma once

#include <csignal>
#include <cstdint>
#include <memory>

namespace quenzel::platform {

// The signals that end a process: one that it may catch, and one that it may not.
inline constexpr int terminationSignal = SIGTERM;
inline constexpr int killSignal = SIGKILL;

/// One process, held fast from the moment it was named: where the system allows it, a later process or
/// thread that gets the same PID is never signalled in its place. For one thread at a time.
class SignalTarget {
 public:
  virtual ~SignalTarget() = default;

  /// Whether it is this very process: named by its PID or (Linux) by the ID of one of its threads, which
  /// kill(2) takes for the whole process.
  virtual bool isThisProcess() const = 0;

  /// Sends the signal as kill(2) does; 0 only asks whether it could be sent. 0, or the errno of the failure.
  virtual int send(int signal) const = 0;
};

/// The process of that PID, which is positive; one that does not exist answers every signal with ESRCH.
std::unique_ptr<SignalTarget> makeSignalTarget(std::int32_t pid);

}  // namespace quenzel::platform
