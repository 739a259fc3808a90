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
  enum class Kind { failedToLaunch, nonZeroExit, timedOut };

  /// The command could not be started; callers use it for answers that they can't make sense of, too.
  static ShellRunnerError failedToLaunch(const std::string& message);
  static ShellRunnerError nonZeroExit(std::int32_t status, std::string stdout, std::string stderr);
  /// @param command the executable and its arguments, joined with single spaces
  static ShellRunnerError timedOut(const std::string& command, double seconds);

  Kind kind() const noexcept { return kind_; }
  /// What the command had written and how it ended; empty but for nonZeroExit.
  const ShellResult& result() const noexcept { return result_; }
  /// The time-out that passed; 0 but for timedOut.
  double seconds() const noexcept { return seconds_; }

 private:
  ShellRunnerError(Kind kind, const std::string& description)
      : std::runtime_error(description), kind_(kind) {}

  Kind kind_;
  ShellResult result_;
  double seconds_ = 0;
};

/// Runs an external command to its end. Implementations are safe to call from several threads at once.
class ShellRunning {
 public:
  virtual ~ShellRunning() = default;

  /// Blocks until the command has ended.
  /// @throws ShellRunnerError (failedToLaunch or timedOut); a non-zero exit status is an ordinary result.
  virtual ShellResult run(const std::string& executable, const std::vector<std::string>& arguments) const = 0;
};

}  // namespace quenzel
