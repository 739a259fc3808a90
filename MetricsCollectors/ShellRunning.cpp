#include "MetricsCollectors/ShellRunning.hpp"

#include <utility>

#include <fmt/format.h>

#include "SharedModels/Runtime/Number.hpp"

namespace quenzel {

ShellRunnerError ShellRunnerError::failedToLaunch(const std::string& message) {
  return {Kind::failedToLaunch, "Failed to launch command: " + message};
}

ShellRunnerError ShellRunnerError::nonZeroExit(std::int32_t status, std::string stdout, std::string stderr) {
  ShellRunnerError error(Kind::nonZeroExit, fmt::format("Command exited with status {}: {}", status, stderr));
  error.result_ = {status, std::move(stdout), std::move(stderr)};
  return error;
}

ShellRunnerError ShellRunnerError::timedOut(const std::string& command, double seconds) {
  ShellRunnerError error(Kind::timedOut,
                         fmt::format("Command timed out after {}s: {}", shortestDecimal(seconds), command));
  error.seconds_ = seconds;
  return error;
}

}  // namespace quenzel
