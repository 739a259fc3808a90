#include <cerrno>
#include <csignal>
#include <deque>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MetricsCollectors/DefaultProcessTerminator.hpp"
#include "Platform/ChildProcessSupport.hpp"

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
      if (signal != 0) script.sent.push_back({signal, script.slept / 1ms});
      if (script.errors.empty()) return 0;
      const int error = script.errors.front();
      script.errors.pop_front();
      return error;
    }
  };

  std::deque<int> errors = {};
  int clockDirection = 1;
  int probes = 0;
  std::vector<std::pair<int, std::int64_t>> sent;  ///< the signals, and after how many milliseconds
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
  const std::pair<int, std::int64_t> term{SIGTERM, 0}, kill{SIGKILL, 360}, killAtOnce{SIGKILL, 0};
  using Sent = decltype(ScriptedSignals::sent);
  // The errors are of the probe, SIGTERM, the probes of the wait, SIGKILL, the probes of the second wait.
  const struct {
    std::int32_t pid;
    std::deque<int> errors;
    Result result;
    Sent sent;
    int probes;
  } rows[] = {
      {0, {}, Result::failure("Invalid PID 0."), {}, 0},
      {-5, {}, Result::failure("Invalid PID -5."), {}, 0},
      {1234, {}, Result::failure("Refusing to terminate the current process (1234)."), {}, 0},
      {1, {ESRCH}, Result::success("Process 1 is already stopped."), {}, 1},
      {7, {EPERM}, Result::failure("Unable to inspect process 7: Operation not permitted."), {}, 1},
      {7, {0, ESRCH}, Result::success("Process 7 exited before termination completed."), {term}, 1},
      {7, {0, EPERM}, Result::failure("Unable to terminate process 7: Operation not permitted."), {term}, 1},
      {7, {0, 0, ESRCH}, Result::success(), {term}, 2},
      {7, {0, 0, 0, 0, ESRCH}, Result::success(), {term}, 4},
      {7,
       {0, 0, EPERM, ESRCH},
       Result::success("Process 7 exited before SIGKILL completed."),
       {term, killAtOnce},
       2},
      {7,
       survivor({EPERM}),
       Result::failure("Unable to force terminate process 7: Operation not permitted."),
       {term, kill},
       1 + polls},
      {7, survivor({0, ESRCH}), Result::success("Process 7 required SIGKILL."), {term, kill}, 2 + polls},
      {7, {}, Result::failure("Process 7 ignored SIGTERM and SIGKILL."), {term, kill}, 1 + 2 * polls},
  };
  for (const auto& row : rows) {
    ScriptedSignals signals;
    signals.errors = row.errors;
    EXPECT_EQ(DefaultProcessTerminator(signals).terminateProcess(row.pid), row.result)
        << row.result.message.value_or("(none)");
    EXPECT_EQ(signals.sent, row.sent) << row.result.message.value_or("(none)");
    EXPECT_EQ(signals.probes, row.probes) << row.result.message.value_or("(none)");
  }
}

TEST(ProcessTerminator, DoesNotWaitForeverWhileTheClockIsSetBack) {
  ScriptedSignals signals;
  signals.clockDirection = -1;
  EXPECT_FALSE(DefaultProcessTerminator(signals).terminateProcess(7).succeeded);
  EXPECT_EQ(signals.slept, 2 * polls * 20ms);
}

TEST(ProcessTerminator, EndsARealProcessAndKnowsOneThatIsGone) {
  const pid_t child = ::fork();
  if (child == 0) {
    for (;;) ::pause();
  }
  const DefaultProcessTerminator terminator;
  const std::string name = "Process " + std::to_string(child);
  // Nobody has reaped it yet, and a zombie is still there to be signalled.
  EXPECT_EQ(terminator.terminateProcess(child), Result::failure(name + " ignored SIGTERM and SIGKILL."));
  ::kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_EQ(terminator.terminateProcess(child), Result::success(name + " is already stopped."));
}

TEST(ProcessTerminator, RefusesThisProcessByWhicheverThread) {
  std::promise<pid_t> started;
  std::promise<void> ends;
  std::thread thread([&, end = ends.get_future()] {
    started.set_value(static_cast<pid_t>(::syscall(SYS_gettid)));
    end.wait();
  });
  const pid_t other = started.get_future().get();
  for (const pid_t pid : {::getpid(), other}) {
    EXPECT_EQ(DefaultProcessTerminator().terminateProcess(pid),
              Result::failure("Refusing to terminate the current process (" + std::to_string(pid) + ")."));
  }
  ends.set_value();
  thread.join();
}

TEST(ProcessTerminator, EndsAProcessByOneOfItsThreads) {
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
  DefaultProcessTerminator().terminateProcess(thread);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

}  // namespace
}  // namespace quenzel
