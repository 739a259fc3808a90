#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "MetricsCollectors/PowermetricsParser.hpp"
#include "MetricsCollectors/ShellRunning.hpp"
#include "MetricsCollectors/ToolCommand.hpp"

namespace quenzel {

/// Why there is no powermetrics sample. what() is the text that is logged and shown.
class PowermetricsCollectorError final : public std::runtime_error {
 public:
  enum class Kind { commandFailed, insufficientPrivileges, emptyOrUnparseableOutput };

  static PowermetricsCollectorError commandFailed(const std::string& message);
  static PowermetricsCollectorError insufficientPrivileges(const std::string& message);
  static PowermetricsCollectorError emptyOrUnparseableOutput();

  Kind kind() const noexcept { return kind_; }
  /// What the tool or its runner said, as one printable line; empty for emptyOrUnparseableOutput.
  const std::string& message() const noexcept { return message_; }

 private:
  PowermetricsCollectorError(Kind kind, const std::string& description, std::string message)
      : std::runtime_error(description), kind_(kind), message_(std::move(message)) {}

  Kind kind_;
  std::string message_;
};

/// Takes one powermetrics sample.
class PowermetricsCollecting {
 public:
  virtual ~PowermetricsCollecting() = default;

  /// @throws PowermetricsCollectorError
  virtual PowermetricsParseOutput collectNormalizedSample() const = 0;
};

/// Runs powermetrics(1) at the lowest priority, through sudo that never prompts when this process is not
/// root, and rejects an answer without any power figure or task.
///
/// For diagnosis the raw exchange is appended to a dump file while QZL_PM_RAW_DUMP is "1" or
/// /tmp/qzl-powermetrics-debug.flag exists: to QZL_PM_RAW_DUMP_PATH, else /tmp/qzl-powermetrics-raw.log,
/// which must not be a symbolic link.
///
/// Immutable. A call blocks for as long as the tool runs, bounded by the runner's time-out.
class PowermetricsCollector final : public PowermetricsCollecting {
 public:
  explicit PowermetricsCollector(const ShellRunning& shell, PowermetricsParser parser = {})
      : shell_(shell), parser_(parser) {}

  PowermetricsParseOutput collectNormalizedSample() const override;

  /// The command line for a process that is root, or is not.
  static ToolCommand command(bool isRoot);

 private:
  ShellResult run(const ToolCommand& command) const;
  static void requireSuccess(const ShellResult& result);

  const ShellRunning& shell_;
  PowermetricsParser parser_;
};

}  // namespace quenzel
