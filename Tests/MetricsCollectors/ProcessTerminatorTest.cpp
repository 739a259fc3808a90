#include <cerrno>
#include <csignal>
#include <deque>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MetricsCollectors/DefaultProcessTerminator.hpp"

namespace quenzel {
namespace {

using namespace std::chrono_literals;
using Result = ProcessTerminationResult;

/// Answers kill(2) from a script, one errno a call, and advances its clock while sleeping.
struct ScriptedSignals final : SignalOperations {
  std::deque<int> errors = {};
  int clockDirection = 1;
  std::size_t sent = 0;
  std::chrono::microseconds slept{0};

  std::int32_t ownPID() override { return 1234; }
  int send(std::int32_t, int) override { return sent++ < errors.size() ? errors[sent - 1] : 0; }
  std::chrono::system_clock::time_point now() override {
    return std::chrono::system_clock::time_point(1'000'000s) + slept * clockDirection;
  }
  void sleep(std::chrono::microseconds duration) override { slept += duration; }
};

constexpr int polls = 18;  // one every 20 ms within 350 ms

TEST(ProcessTerminator, HasOneMessageForEveryPath) {
  /// The errors of a process that outlives SIGTERM and the wait for it.
  const auto survivor = [](std::deque<int> then) {
    then.insert(then.begin(), 2 + polls, 0);
    return then;
  };
  // The errors are of the probe, SIGTERM, the probes of the wait, SIGKILL, the probes of the second wait.
  const std::tuple<std::int32_t, std::deque<int>, Result> rows[] = {
      {0, {}, Result::failure("Invalid PID 0.")},
      {-5, {}, Result::failure("Invalid PID -5.")},
      {1234, {}, Result::failure("Refusing to terminate the current process (1234).")},
      {7, {ESRCH}, Result::success("Process 7 is already stopped.")},
      {7, {EPERM}, Result::failure("Unable to inspect process 7: Operation not permitted.")},
      {7, {0, ESRCH}, Result::success("Process 7 exited before termination completed.")},
      {7, {0, EPERM}, Result::failure("Unable to terminate process 7: Operation not permitted.")},
      {7, {0, 0, ESRCH}, Result::success()},
      {7, {0, 0, 0, 0, ESRCH}, Result::success()},
      {7, {0, 0, EPERM, ESRCH}, Result::success("Process 7 exited before SIGKILL completed.")},
      {7, survivor({ESRCH}), Result::success("Process 7 exited before SIGKILL completed.")},
      {7, survivor({EPERM}),
       Result::failure("Unable to force terminate process 7: Operation not permitted.")},
      {7, survivor({0, ESRCH}), Result::success("Process 7 required SIGKILL.")},
      {7, {}, Result::failure("Process 7 ignored SIGTERM and SIGKILL.")},
  };
  for (const auto& [pid, errors, result] : rows) {
    ScriptedSignals signals;
    signals.errors = errors;
    EXPECT_EQ(DefaultProcessTerminator(signals).terminateProcess(pid), result)
        << result.message.value_or("(none)");
    EXPECT_EQ(signals.sent == 0, pid != 7) << pid;
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
  const std::string own = std::to_string(::getpid());
  EXPECT_EQ(terminator.terminateProcess(::getpid()),
            Result::failure("Refusing to terminate the current process (" + own + ")."));
}

}  // namespace
}  // namespace quenzel
