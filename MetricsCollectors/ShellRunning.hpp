#pragma once

#include <cstdint>
#include <cstdio>  // where stdout and stderr are macros, every user of ShellResult must see them as such
#include <stdexcept>
#include <string>
#include <vector>

namespace quenzel {

/// What a finished child left behind. The texts are valid UTF-8: other bytes read as U+FFFD.
struct ShellResult {
  std::int32_t status = 0;  ///< exit status, or the number of the signal that ended the child
  std::string stdout;
  std::string stderr;

  bool operator==(const ShellResult&) const = default;
};

/// A failed run of an external command. what() is the text that is logged and sent to clients.
class ShellRunnerError final : public std::runtime_error {
 public:
  enum class Kind { failedToLaunch, nonZeroExit, timedOut, failedToComplete };

  /// The command could not be started; callers use it for answers that they can't make sense of, too.
  static ShellRunnerError failedToLaunch(std::string message);
  static ShellRunnerError nonZeroExit(std::int32_t status, std::string stdout, std::string stderr);
  /// @param command the executable and its arguments, joined with single spaces
  static ShellRunnerError timedOut(std::string command, double seconds);
  /// The command ran, but its result could not be had.
  static ShellRunnerError failedToComplete(std::string message);

  Kind kind() const noexcept { return kind_; }

  // What the error carries; empty or 0 where its kind has no such thing.

  const std::string& message() const noexcept { return message_; }  ///< of failedToLaunch, failedToComplete
  const std::string& command() const noexcept { return command_; }  ///< of timedOut
  double seconds() const noexcept { return seconds_; }              ///< the time-out of timedOut
  std::int32_t status() const noexcept { return result_.status; }   ///< of nonZeroExit, with what it wrote
  const std::string& stdout() const noexcept { return result_.stdout; }
  const std::string& stderr() const noexcept { return result_.stderr; }

 private:
  ShellRunnerError(Kind kind, const std::string& description)
      : std::runtime_error(description), kind_(kind) {}

  Kind kind_;
  std::string message_;
  std::string command_;
  double seconds_ = 0;
  ShellResult result_;
};

/// Runs an external command to its end. Implementations are safe to call from several threads at once.
class ShellRunning {
 public:
  virtual ~ShellRunning() = default;

  /// Blocks until the command has ended.
  /// @throws ShellRunnerError (never nonZeroExit: such an exit status is an ordinary result)
  virtual ShellResult run(const std::string& executable, const std::vector<std::string>& arguments) const = 0;
};

}  // namespace quenzel
