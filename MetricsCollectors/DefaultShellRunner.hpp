#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "MetricsCollectors/ShellRunning.hpp"

namespace quenzel {

/// Runs a command as a child process, never through a shell, and collects what it writes while it runs.
///
/// The time-out depends on the tool and on two environment variables that are read at every run (each counts
/// as absent unless its whole value is a number): QZL_PM_TIMEOUT_SEC for powermetrics (default 15 s, at least
/// 1 s) and QZL_SHELL_TIMEOUT_SEC for everything else (default 4 s, at least 0.25 s). A child that outlives
/// it gets SIGTERM and, after a grace period, SIGKILL; one that survives even that is left to a thread that
/// reaps it when it ends.
///
/// After the child's end its pipes are read to their end, but never past the time-out: a grandchild that
/// keeps a pipe open can't hold the caller. A child that writes more than the limit is killed, and the run
/// fails.
///
/// Tools run in the C locale with this process's character encoding. The runners of a process have at most
/// `mostChildren` children at once; other runs wait their turn, first come, first served, before their own
/// time-out begins, and fail when it does not come within the limit.
///
/// Immutable; share freely. A run blocks its thread without polling and costs four descriptors and a pidfd.
class DefaultShellRunner final : public ShellRunning {
 public:
  static constexpr std::size_t mostChildren = 4;

  /// What a run may take of what others need too.
  struct Limits {
    /// Of both streams together. No tool writes that much; one that did would use up this process's memory.
    std::size_t outputBytes = std::size_t{1} << 30;
    /// For its turn. A request to the daemon runs two commands, so the client still gets its answer
    /// (platform::requestReplyTimeout).
    double waitSeconds = 20;
  };

  DefaultShellRunner() : DefaultShellRunner(0.75, 1.0) {}
  DefaultShellRunner(double terminateGraceSeconds, double killGraceSeconds)
      : DefaultShellRunner(terminateGraceSeconds, killGraceSeconds, Limits()) {}
  DefaultShellRunner(double terminateGraceSeconds, double killGraceSeconds, const Limits& limits)
      : terminateGraceSeconds_(terminateGraceSeconds), killGraceSeconds_(killGraceSeconds), limits_(limits) {}

  /// How long a child that was sent SIGTERM is waited for before it is sent SIGKILL.
  double terminateGraceSeconds() const { return terminateGraceSeconds_; }
  /// How long it is waited for after that.
  double killGraceSeconds() const { return killGraceSeconds_; }

  ShellResult run(const std::string& executable, const std::vector<std::string>& arguments) const override;

  /// The time-out of that command in seconds; may be infinite when the environment says so.
  static double resolveTimeoutSeconds(const std::string& executable,
                                      const std::vector<std::string>& arguments);

 private:
  double terminateGraceSeconds_;
  double killGraceSeconds_;
  Limits limits_;
};

}  // namespace quenzel
