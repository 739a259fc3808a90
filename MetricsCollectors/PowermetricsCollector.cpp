#include "MetricsCollectors/PowermetricsCollector.hpp"

#include <chrono>
#include <string_view>
#include <system_error>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Base/Environment.hpp"
#include "Base/ErrorText.hpp"
#include "Base/Number.hpp"
#include "Base/PointInTime.hpp"
#include "Base/Text.hpp"
#include "Platform/AppendFile.hpp"
#include "Platform/ThisProcess.hpp"
#include "SharedModels/Runtime/DiagnosticSwitch.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"

namespace quenzel {
namespace {

constexpr std::string_view component = "Powermetrics";
constexpr std::size_t previewLines = 16;

std::string commandLine(const ToolCommand& command) {
  return fmt::format("{} {}", command.executable, fmt::join(command.arguments, " "));
}

/// The first line that is not empty, made printable: what tools write holds what others chose.
std::string firstLineOf(std::string_view text) {
  for (const std::string_view line : splitAtLineFeeds(text)) {
    if (!line.empty()) return printableLine(line);
  }
  return "<empty>";
}

std::string previewOf(std::string_view text) {
  std::vector<std::string_view> kept;
  for (const std::string_view line : splitAtLineFeeds(text)) {
    const std::string_view piece = trimmed(line);
    if (!piece.empty() && kept.size() < previewLines) kept.push_back(piece);
  }
  return printableLine(fmt::format("{}", fmt::join(kept, " | ")));
}

bool isRawDumpEnabled() {
  return isDiagnosticSwitchOn("QZL_PM_RAW_DUMP", "/tmp/qzl-powermetrics-debug.flag");
}

std::string rawDumpPath() {
  const auto path = environmentValue("QZL_PM_RAW_DUMP_PATH");
  return path && !path->empty() ? *path : "/tmp/qzl-powermetrics-raw.log";
}

// The byte counts name standard error first, the texts standard output first: readers of these dumps expect
// both.
void writeRawDumpIfEnabled(const ToolCommand& command, const ShellResult& result) {
  if (!isRawDumpEnabled()) return;
  const std::string record = fmt::format(
      "----- {} -----\ncommand: {}\nstatus: {}\nstderr-bytes: {}\nstdout-bytes: "
      "{}\nstdout:\n{}\nstderr:\n{}\n",
      iso8601Text(now()), commandLine(command), result.status, result.stderr.size(), result.stdout.size(),
      result.stdout, result.stderr);
  const std::string path = rawDumpPath();
  if (const int failure = platform::appendToFile(path, record, 0644)) {
    RuntimeLog::warn(component, fmt::format("Failed to write raw dump file: {}: {}", printableLine(path),
                                            errorText(failure)));
  }
}

bool hasPowerData(const PowermetricsParseOutput& output) {
  return !output.processes.empty() || output.hasPackagePower() || output.totalSystemWatts.value_or(0) > 0;
}

}  // namespace

PowermetricsCollectorError PowermetricsCollectorError::commandFailed(const std::string& message) {
  return {Kind::commandFailed, "powermetrics command failed: " + message, message};
}

PowermetricsCollectorError PowermetricsCollectorError::insufficientPrivileges(const std::string& message) {
  return {Kind::insufficientPrivileges, "powermetrics requires admin privileges: " + message, message};
}

PowermetricsCollectorError PowermetricsCollectorError::emptyOrUnparseableOutput() {
  return {Kind::emptyOrUnparseableOutput, "powermetrics returned no usable power data.", ""};
}

ToolCommand PowermetricsCollector::command(bool isRoot) {
  ToolCommand command{"/usr/bin/nice",
                      {"-n", "20", "/usr/bin/powermetrics", "-n", "1", "--show-process-energy", "--samplers",
                       "tasks", "--show-all"}};
  if (isRoot) return command;
  command.arguments.insert(command.arguments.begin(), {"-n", command.executable});
  command.executable = "/usr/bin/sudo";
  return command;
}

ShellResult PowermetricsCollector::run(const ToolCommand& command) const {
  try {
    return shell_.run(command.executable, command.arguments);
  } catch (const ShellRunnerError& error) {
    const std::string reason = printableLine(error.what());
    RuntimeLog::error(component, "powermetrics execution failed: " + reason);
    throw PowermetricsCollectorError::commandFailed(reason);
  }
}

void PowermetricsCollector::requireSuccess(const ShellResult& result) {
  if (result.status == 0) return;
  const std::string firstLine = firstLineOf(result.stderr);
  RuntimeLog::error(component, fmt::format("powermetrics non-zero status={}, firstStderrLine={}",
                                           result.status, firstLine));
  const std::string complaint = lowercased(result.stderr);
  if (complaint.find("password") != std::string::npos ||
      complaint.find("not in the sudoers") != std::string::npos) {
    throw PowermetricsCollectorError::insufficientPrivileges(firstLine);
  }
  throw PowermetricsCollectorError::commandFailed(firstLine);
}

PowermetricsParseOutput PowermetricsCollector::collectNormalizedSample() const {
  const auto start = std::chrono::steady_clock::now();
  const ToolCommand tool = command(platform::effectiveUserID() == 0);
  RuntimeLog::info(component, "Starting powermetrics fetch: " + commandLine(tool));

  const ShellResult result = run(tool);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  RuntimeLog::info(
      component,
      fmt::format("powermetrics command completed in {:.3f}s with status={}, stdoutBytes={}, stderrBytes={}",
                  elapsed.count(), result.status, result.stdout.size(), result.stderr.size()));
  requireSuccess(result);
  writeRawDumpIfEnabled(tool, result);

  PowermetricsParseOutput output = parser_.parse(result.stdout);
  RuntimeLog::info(
      component, fmt::format("Parsed powermetrics output: processes={}, packageW={:.2f}, totalSystemWatts={}",
                             output.processes.size(), output.combinedPackageW,
                             twoDecimalsOrNil(output.totalSystemWatts)));
  if (hasPowerData(output)) return output;
  RuntimeLog::error(component, "powermetrics parse produced no process/package/system power. preview=" +
                                   previewOf(result.stdout));
  throw PowermetricsCollectorError::emptyOrUnparseableOutput();
}

}  // namespace quenzel
