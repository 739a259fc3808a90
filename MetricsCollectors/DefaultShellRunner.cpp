#include "MetricsCollectors/DefaultShellRunner.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <optional>
#include <system_error>
#include <thread>
#include <variant>

#include <fmt/format.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Base/Environment.hpp"
#include "Base/ErrorText.hpp"
#include "Base/Number.hpp"
#include "Base/Text.hpp"
#include "MetricsCollectors/ThreadSafeDataCollector.hpp"
#include "MetricsCollectors/ToolCommand.hpp"
#include "Platform/ChildProcess.hpp"
#include "Platform/FairSemaphore.hpp"
#include "Platform/Settings.hpp"

namespace quenzel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view powermetricsPath = "/usr/bin/powermetrics";
/// Longer time-outs are no different to a caller and would overflow the clock.
constexpr double longestTimeoutSeconds = 1e8;
/// How often a child is asked for where the system has no exit descriptor.
constexpr std::chrono::milliseconds exitProbeInterval{10};

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

/// A child between its start and its end, with what it has written so far. Used by one thread.
class RunningChild {
 public:
  /// @param name what errors call it
  RunningChild(platform::ChildProcess child, const std::string& name, std::size_t outputLimitBytes)
      : child_(std::move(child)), name_(name), outputLimitBytes_(outputLimitBytes) {
    output_.descriptor = std::move(child_.standardOutput);
    error_.descriptor = std::move(child_.standardError);
  }
  RunningChild(const RunningChild&) = delete;
  RunningChild& operator=(const RunningChild&) = delete;
  ~RunningChild() {
    if (ended_) return;
    signal(SIGKILL);
    abandon();
  }

  /// Collects output until the child has ended; false when the deadline came first.
  bool waitForExit(Clock::time_point deadline) {
    while (!ended_) {
      if (!poll(deadline)) return false;
    }
    return true;
  }

  /// Collects what is left in the pipes, up to the deadline.
  void drain(Clock::time_point deadline) {
    while (output_.descriptor || error_.descriptor) {
      if (!poll(deadline)) return;
    }
  }

  /// From now on output is read, so that the child does not block on it, but not kept.
  void discardOutput() { collects_ = false; }

  void signal(int number) const { ::kill(child_.pid, number); }

  /// The result of a child that has ended.
  ShellResult takeResult() { return {status_, takeText(output_), takeText(error_)}; }

 private:
  struct Stream {
    FileDescriptor descriptor;
    ThreadSafeDataCollector collector;
  };

  static std::string takeText(Stream& stream) {
    const MutexLock guard(stream.collector.lock);
    return repairedUTF8(std::move(stream.collector.data));
  }

  /// Waits once for output or the child's end and takes it; false when the deadline has passed.
  bool poll(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    const bool probes = !ended_ && !child_.exit;
    // poll(2) passes over descriptors that are negative, as those of closed streams are.
    std::array<pollfd, 3> waited{{{output_.descriptor.get(), POLLIN, 0},
                                  {error_.descriptor.get(), POLLIN, 0},
                                  {ended_ ? -1 : child_.exit.get(), POLLIN, 0}}};
    const int ready = ::poll(waited.data(), waited.size(), waitMilliseconds(left, probes));
    if (ready < 0) return errno == EINTR;
    if (waited[0].revents != 0) take(output_);
    if (waited[1].revents != 0) take(error_);
    if (waited[2].revents != 0) reap(0);
    if (probes) reap(WNOHANG);
    return true;
  }

  static int waitMilliseconds(std::chrono::milliseconds left, bool probes) {
    constexpr std::chrono::milliseconds longestPoll{24 * 3600 * 1000};
    return static_cast<int>(std::min(left, probes ? exitProbeInterval : longestPoll).count());
  }

  void take(Stream& stream) {
    std::array<char, std::size_t{64} * 1024> buffer;
    const ssize_t count = ::read(stream.descriptor.get(), buffer.data(), buffer.size());
    if (count > 0) {
      if (collects_) collect({buffer.data(), static_cast<std::size_t>(count)}, stream.collector);
    } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
      stream.descriptor.reset();
    }
  }

  void collect(std::string_view bytes, ThreadSafeDataCollector& collector) {
    if (bytes.size() > outputLimitBytes_ - collectedBytes_) {
      throw ShellRunnerError::failedToComplete(
          fmt::format("{} wrote more than {} MiB", name_, outputLimitBytes_ >> 20));
    }
    collector.append(bytes);
    collectedBytes_ += bytes.size();
  }

  void reap(int options) {
    int status = 0;
    const pid_t reaped = ::waitpid(child_.pid, &status, options);
    if (reaped == 0 || (reaped < 0 && errno == EINTR)) return;
    ended_ = true;
    if (reaped < 0) throw ShellRunnerError::failedToComplete(name_ + " left no exit status");
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
  }

  /// Reaps a child that would not die once it does, so that it never stays behind as a zombie.
  void abandon() const noexcept {
    try {
      std::thread([pid = child_.pid] {
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
      }).detach();
    } catch (const std::system_error&) {  // no thread to be had: the zombie goes with this process
    }
  }

  platform::ChildProcess child_;
  const std::string& name_;
  const std::size_t outputLimitBytes_;
  Stream output_;
  Stream error_;
  std::size_t collectedBytes_ = 0;
  bool collects_ = true;
  bool ended_ = false;
  std::int32_t status_ = 0;
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
                                    const std::vector<std::string>& arguments) const {
  const ToolCommand command = resolveToolCommand(executable, arguments, platform::toolRoot());
  const platform::FairSemaphore::Place place = waitForTurn(executable, limits_.waitSeconds);
  auto spawned =
      platform::spawnChild(command.executable, command.arguments, toolEnvironment(environmentEntries()));
  if (const auto* failure = std::get_if<platform::SpawnFailure>(&spawned)) {
    throw ShellRunnerError::failedToLaunch(executable + ": " + errorText(failure->errorNumber));
  }
  RunningChild child(std::get<platform::ChildProcess>(std::move(spawned)), executable, limits_.outputBytes);

  const double timeout = resolveTimeoutSeconds(executable, arguments);
  const Clock::time_point deadline = deadlineAfter(timeout);
  if (child.waitForExit(deadline)) {
    child.drain(deadline);
    return child.takeResult();
  }
  child.discardOutput();
  child.signal(SIGTERM);
  if (!child.waitForExit(deadlineAfter(terminateGraceSeconds_))) {
    child.signal(SIGKILL);
    child.waitForExit(deadlineAfter(killGraceSeconds_));
  }
  throw ShellRunnerError::timedOut(commandLine(executable, arguments), timeout);
}

}  // namespace quenzel
