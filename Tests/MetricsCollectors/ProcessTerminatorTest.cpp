#include <cerrno>
#include <csignal>
#include <deque>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MetricsCollectors/DefaultProcessTerminator.hpp"
#include "Platform/SubprocessSupport.hpp"

namespace quenzel {
namespace {

using namespace std::chrono_literals;
using Result = ProcessTerminationResult;

constexpr int polls = 18;  // one every 20 ms within 350 ms

/// Answers the signals to one process from a script, one errno each, and advances its clock while sleeping.
struct ScriptedSignals final : SignalOperations {
  struct Target final : platform::SignalTarget {
    ScriptedSignals& script;
    const std::int32_t pid;
    Target(ScriptedSignals& owner, std::int32_t named) : script(owner), pid(named) {}
    bool isThisProcess() const override { return pid == 1234; }
    int send(int signal) const override {
      if (signal == 0) ++script.probes;
      if (signal != 0) script.sent += fmt::format(" {}@{}", signal, script.slept / 1ms);
      if (script.errors.empty()) return 0;
      const int error = script.errors.front();
      script.errors.pop_front();
      return error;
    }
  };

  std::deque<int> errors = {};
  int clockDirection = 1;
  int probes = 0;
  std::string sent;  ///< each signal, and after how many milliseconds
  std::chrono::microseconds slept{0};

  std::unique_ptr<platform::SignalTarget> target(std::int32_t pid) override {
    return std::make_unique<Target>(*this, pid);
  }
  std::chrono::system_clock::time_point now() override {
    return std::chrono::system_clock::time_point(1'000'000s) + slept * clockDirection;
  }
  void sleep(std::chrono::microseconds duration) override { slept += duration; }
};

TEST(ProcessTerminator, HasOneMessageForEveryPath) {
  /// The errors of a process that outlives SIGTERM and the wait for it.
  const auto survivor = [](std::deque<int> then) {
    then.insert(then.begin(), 2 + polls, 0);
    return then;
  };
  // The errors are of the probe, SIGTERM, the probes of the wait, SIGKILL, the probes of the second wait.
  // Then whether it succeeded, the message, the signals (15 is SIGTERM, 9 SIGKILL), and how many probes.
  const std::tuple<std::int32_t, std::deque<int>, std::string> rows[] = {
      {0, {}, "0 Invalid PID 0. 0"},
      {-5, {}, "0 Invalid PID -5. 0"},
      {1234, {}, "0 Refusing to terminate the current process (1234). 0"},
      {1, {ESRCH}, "1 Process 1 is already stopped. 1"},
      {7, {EPERM}, "0 Unable to inspect process 7: Operation not permitted. 1"},
      {7, {0, ESRCH}, "1 Process 7 exited before termination completed. 15@0 1"},
      {7, {0, EPERM}, "0 Unable to terminate process 7: Operation not permitted. 15@0 1"},
      {7, {0, 0, ESRCH}, "1 (none) 15@0 2"},
      {7, {0, 0, 0, 0, ESRCH}, "1 (none) 15@0 4"},
      {7, {0, 0, EPERM, ESRCH}, "1 Process 7 exited before SIGKILL completed. 15@0 9@0 2"},
      {7, survivor({EPERM}), "0 Unable to force terminate process 7: Operation not permitted. 15@0 9@360 19"},
      {7, survivor({0, ESRCH}), "1 Process 7 required SIGKILL. 15@0 9@360 20"},
      {7, {}, "0 Process 7 ignored SIGTERM and SIGKILL. 15@0 9@360 37"}};
  for (const auto& [pid, errors, course] : rows) {
    ScriptedSignals signals;
    signals.errors = errors;
    const Result result = DefaultProcessTerminator(signals).terminateProcess(pid);
    EXPECT_EQ(fmt::format("{:d} {}{} {}", result.succeeded, result.message.value_or("(none)"), signals.sent,
                          signals.probes),
              course);
  }
}

TEST(ProcessTerminator, DoesNotWaitForeverWhileTheClockIsSetBack) {
  ScriptedSignals signals;
  signals.clockDirection = -1;
  EXPECT_FALSE(DefaultProcessTerminator(signals).terminateProcess(7).succeeded);
  EXPECT_EQ(signals.slept, 2 * polls * 20ms);
}

TEST(ProcessTerminator, EndsARealProcessByTheIDOfAnyOfItsThreads) {
  const auto pipe = platform::makePipe().value();
  const pid_t child = ::fork();
  if (child == 0) {
    std::thread([&] {
      const auto thread = static_cast<pid_t>(::syscall(SYS_gettid));
      if (::write(pipe.second.get(), &thread, sizeof thread) != sizeof thread) ::_exit(1);
      for (;;) ::pause();
    }).join();
  }
  pid_t thread = 0;
  ASSERT_EQ(::read(pipe.first.get(), &thread, sizeof thread), ssize_t{sizeof thread});
  ASSERT_NE(thread, child);
  const DefaultProcessTerminator terminator;
  terminator.terminateProcess(thread);
  ::kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_EQ(terminator.terminateProcess(child),
            Result::success("Process " + std::to_string(child) + " is already stopped."));
}

TEST(ProcessTerminator, RefusesThisProcessByWhicheverThread) {
  const auto refuses = [] {
    const auto pid = static_cast<pid_t>(::syscall(SYS_gettid));
    EXPECT_EQ(DefaultProcessTerminator().terminateProcess(pid),
              Result::failure("Refusing to terminate the current process (" + std::to_string(pid) + ")."));
  };
  refuses();
  std::thread(refuses).join();
}

}  // namespace
}  // namespace quenzel
