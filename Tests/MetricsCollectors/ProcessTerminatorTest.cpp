#include <cerrno>
#include <csignal>
#include <deque>

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MetricsCollectors/DefaultProcessTerminator.hpp"

namespace quenzel {
namespace {

using namespace std::chrono_literals;
using Result = ProcessTerminationResult;

/// Answers kill(2) from a script, one errno a call, and advances its clock while sleeping.
class ScriptedSignals final : public SignalOperations {
 public:
  explicit ScriptedSignals(std::deque<int> errors) : errors_(std::move(errors)) {}

  std::int32_t ownPID() override { return 1234; }
  int send(std::int32_t, int signal) override {
    signals.push_back(signal);
    if (errors_.empty()) return 0;
    const int error = errors_.front();
    errors_.pop_front();
    return error;
  }
  std::chrono::system_clock::time_point now() override { return now_; }
  void sleep(std::chrono::microseconds duration) override {
    slept += duration;
    now_ += clockRunsBackwards ? -duration : duration;
  }

  std::vector<int> signals;
  std::chrono::microseconds slept{0};
  bool clockRunsBackwards = false;

 private:
  std::deque<int> errors_;
  std::chrono::system_clock::time_point now_{1'000'000s};
};

constexpr int polls = 18;  // one every 20 ms within 350 ms

std::deque<int> aliveFor(int probes, std::deque<int> then) {
  then.insert(then.begin(), static_cast<std::size_t>(probes), 0);
  return then;
}

TEST(ProcessTerminator, HasOneMessageForEveryPath) {
  struct Row {
    std::int32_t pid;
    std::deque<int>
        errors;  ///< of the probe, SIGTERM, the probes of the wait, SIGKILL, the probes of the second wait
    Result result;
  };
  const Row rows[] = {
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
      {7, aliveFor(2 + polls, {ESRCH}), Result::success("Process 7 exited before SIGKILL completed.")},
      {7, aliveFor(2 + polls, {EPERM}),
       Result::failure("Unable to force terminate process 7: Operation not permitted.")},
      {7, aliveFor(2 + polls, {0, ESRCH}), Result::success("Process 7 required SIGKILL.")},
      {7, {}, Result::failure("Process 7 ignored SIGTERM and SIGKILL.")},
  };
  for (const Row& row : rows) {
    ScriptedSignals signals(row.errors);
    EXPECT_EQ(DefaultProcessTerminator(signals).terminateProcess(row.pid), row.result)
        << row.result.message.value_or("(none)");
    EXPECT_EQ(signals.signals.empty(), row.pid != 7) << row.pid;
  }
}

TEST(ProcessTerminator, DoesNotWaitForeverWhileTheClockIsSetBack) {
  ScriptedSignals signals({});
  signals.clockRunsBackwards = true;
  EXPECT_FALSE(DefaultProcessTerminator(signals).terminateProcess(7).succeeded);
  EXPECT_EQ(signals.slept, 2 * polls * 20ms);
}

/// A shell running the script, reaped by a thread-free waiter at the end of the scope.
class Child {
 public:
  explicit Child(const char* script) {
    const char* arguments[] = {"sh", "-c", script, nullptr};
    ::posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(arguments), environ);
  }
  ~Child() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

TEST(ProcessTerminator, SeesAZombieAsRunning) {
  const Child child("exec sleep 100");  // nobody reaps it before the end of this test
  const std::string number = std::to_string(child.pid());
  const DefaultProcessTerminator terminator;
  EXPECT_EQ(terminator.terminateProcess(child.pid()),
            Result::failure("Process " + number + " ignored SIGTERM and SIGKILL."));
}

TEST(ProcessTerminator, EndsARealProcessAndKnowsOneThatIsGone) {
  struct sigaction reap {};
  reap.sa_handler = SIG_DFL;
  reap.sa_flags = SA_NOCLDWAIT;  // the system reaps, as the parent of a terminated application would
  struct sigaction former {};
  ::sigaction(SIGCHLD, &reap, &former);
  const DefaultProcessTerminator terminator;
  const Child polite("exec sleep 100");
  EXPECT_EQ(terminator.terminateProcess(polite.pid()), Result::success());
  EXPECT_EQ(terminator.terminateProcess(polite.pid()),
            Result::success("Process " + std::to_string(polite.pid()) + " is already stopped."));
  ::sigaction(SIGCHLD, &former, nullptr);
  EXPECT_EQ(
      terminator.terminateProcess(::getpid()),
      Result::failure("Refusing to terminate the current process (" + std::to_string(::getpid()) + ")."));
}

}  // namespace
}  // namespace quenzel
