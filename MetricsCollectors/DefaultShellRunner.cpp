#include "MetricsCollectors/DefaultShellRunner.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "Base/Environment.hpp"
#include "Base/Number.hpp"
#include "Base/Text.hpp"
#include "MetricsCollectors/ThreadSafeDataCollector.hpp"
#include "MetricsCollectors/ToolCommand.hpp"
#include "Platform/FairSemaphore.hpp"
#include "Platform/Settings.hpp"
#include "Platform/Subprocess.hpp"

namespace quenzel {
namespace {

using Clock = platform::Subprocess::Clock;

constexpr std::string_view powermetricsPath = "/usr/bin/powermetrics";
/// Longer time-outs are no different to a caller and would overflow the clock.
constexpr double longestTimeoutSeconds = 1e8;

std::optional<double> numberFromEnvironment(const char* name) {
  const auto text = environmentValue(name);
  return text ? parseDouble(*text) : std::nullopt;
}

Clock::time_point deadlineAfter(double seconds) {
  const std::chrono::duration<double> wait(std::clamp(seconds, 0.0, longestTimeoutSeconds));
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(wait);
}

std::string commandLine(const std::string& executable, const std::vector<std::string>& arguments) {
  std::string line = executable;
  for (const std::string& argument : arguments) line += " " + argument;
  return line;
}

/// The places of this process's children.
platform::FairSemaphore& childPlaces() {
  static platform::FairSemaphore places(DefaultShellRunner::mostChildren);
  return places;
}

platform::FairSemaphore::Place waitForTurn(const std::string& executable, double longestWaitSeconds) {
  const std::chrono::duration<double> longestWait(longestWaitSeconds);
  auto place = childPlaces().acquire(std::chrono::ceil<std::chrono::milliseconds>(longestWait));
  if (!place) throw ShellRunnerError::failedToLaunch(executable + ": too many commands are waiting to run");
  return place;
}

/// Collects what both streams of one child deliver.
class ToolOutput {
 public:
  /// @param name what errors call the child
  ToolOutput(const std::string& name, std::size_t limitBytes) : name_(name), limitBytes_(limitBytes) {}

  platform::Subprocess::OutputCallback intoOutput() {
    return [this](std::string_view bytes) { collect(bytes, output_); };
  }
  platform::Subprocess::OutputCallback intoError() {
    return [this](std::string_view bytes) { collect(bytes, error_); };
  }

  ShellResult result(std::int32_t status) { return {status, takeText(output_), takeText(error_)}; }

 private:
  void collect(std::string_view bytes, ThreadSafeDataCollector& collector) {
    if (bytes.size() > limitBytes_ - collectedBytes_) {
      throw ShellRunnerError::failedToComplete(
          fmt::format("{} wrote more than {} MiB", name_, limitBytes_ >> 20));
    }
    collector.append(bytes);
    collectedBytes_ += bytes.size();
  }

  static std::string takeText(ThreadSafeDataCollector& collector) {
    const MutexLock guard(collector.lock);
    return repairedUTF8(std::move(collector.data));
  }

  const std::string& name_;
  const std::size_t limitBytes_;
  std::size_t collectedBytes_ = 0;
  ThreadSafeDataCollector output_;
  ThreadSafeDataCollector error_;
};

}  // namespace

double DefaultShellRunner::resolveTimeoutSeconds(const std::string& executable,
                                                 const std::vector<std::string>& arguments) {
  // fmax passes over an operand that is not a number, so such a setting yields the floor.
  const double base = numberFromEnvironment("QZL_SHELL_TIMEOUT_SEC").value_or(4.0);
  const bool runsPowermetrics = lastPathComponent(executable) == "powermetrics" ||
                                (isWrapper(executable) && std::find(arguments.begin(), arguments.end(),
                                                                    powermetricsPath) != arguments.end());
  if (!runsPowermetrics) return std::fmax(base, 0.25);
  return std::fmax(numberFromEnvironment("QZL_PM_TIMEOUT_SEC").value_or(15.0), 1.0);
}

ShellResult DefaultShellRunner::run(const std::string& executable,
                                    const std::vector<std::string>& arguments) const try {
  const ToolCommand command = resolveToolCommand(executable, arguments, platform::toolRoot());
  const platform::FairSemaphore::Place place = waitForTurn(executable, limits_.waitSeconds);
  ToolOutput output(executable, limits_.outputBytes);
  platform::Subprocess child(command.executable, command.arguments, toolEnvironment(environmentEntries()),
                             output.intoOutput(), output.intoError());

  const double timeout = resolveTimeoutSeconds(executable, arguments);
  const Clock::time_point deadline = deadlineAfter(timeout);
  if (child.waitForExit(deadline)) {
    child.drain(deadline);
    return output.result(child.status());
  }
  child.discardOutput();
  child.terminate();
  if (!child.waitForExit(deadlineAfter(terminateGraceSeconds_))) {
    child.kill();
    child.waitForExit(deadlineAfter(killGraceSeconds_));
  }
  throw ShellRunnerError::timedOut(commandLine(executable, arguments), timeout);
} catch (const platform::SubprocessStartError& error) {
  throw ShellRunnerError::failedToLaunch(fmt::format("{}: {}", executable, error.what()));
} catch (const platform::SubprocessStatusError&) {
  throw ShellRunnerError::failedToComplete(executable + " left no exit status");
}

}  // namespace quenzel
