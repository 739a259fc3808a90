#include "MetricsCollectors/ShellRunning.hpp"

#include <utility>

#include <fmt/format.h>

#include "Base/Number.hpp"

namespace quenzel {

ShellRunnerError ShellRunnerError::failedToLaunch(std::string message) {
  ShellRunnerError error(Kind::failedToLaunch, "Failed to launch command: " + message);
  error.message_ = std::move(message);
  return error;
}

ShellRunnerError ShellRunnerError::nonZeroExit(std::int32_t status, std::string stdout, std::string stderr) {
  ShellRunnerError error(Kind::nonZeroExit, fmt::format("Command exited with status {}: {}", status, stderr));
  error.result_ = {status, std::move(stdout), std::move(stderr)};
  return error;
}

ShellRunnerError ShellRunnerError::timedOut(std::string command, double seconds) {
  ShellRunnerError error(Kind::timedOut,
                         fmt::format("Command timed out after {}s: {}", shortestDecimal(seconds), command));
  error.command_ = std::move(command);
  error.seconds_ = seconds;
  return error;
}

ShellRunnerError ShellRunnerError::failedToComplete(std::string message) {
  ShellRunnerError error(Kind::failedToComplete, "Failed to complete command: " + message);
  error.message_ = std::move(message);
  return error;
}

}  // namespace quenzel
