#pragma once

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
/// keeps a pipe open can't hold the caller. A child that writes more than 64 MiB to a stream is killed, and
/// the run fails.
///
/// Immutable; share freely. A run blocks its thread without polling and costs four descriptors and a pidfd.
class DefaultShellRunner final : public ShellRunning {
 public:
  DefaultShellRunner() = default;
  DefaultShellRunner(double terminateGraceSeconds, double killGraceSeconds)
      : terminateGraceSeconds_(terminateGraceSeconds), killGraceSeconds_(killGraceSeconds) {}

  ShellResult run(const std::string& executable, const std::vector<std::string>& arguments) const override;

  /// The time-out of that command in seconds; may be infinite when the environment says so.
  static double resolveTimeoutSeconds(const std::string& executable,
                                      const std::vector<std::string>& arguments);

 private:
  double terminateGraceSeconds_ = 0.75;
  double killGraceSeconds_ = 1.0;
};

}  // namespace quenzel
