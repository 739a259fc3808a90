#include <chrono>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MetricsCollectors/DefaultShellRunner.hpp"
#include "MetricsCollectors/ThreadSafeDataCollector.hpp"
#include "MetricsCollectors/ToolCommand.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using testing::ScopedEnvironment;
using testing::TemporaryDirectory;
using Kind = ShellRunnerError::Kind;
using Clock = std::chrono::steady_clock;

ShellResult runScript(const DefaultShellRunner& runner, const std::string& script) {
  return runner.run("/bin/sh", {"-c", script});
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(ShellRunner, ChoosesTheTimeOut) {
  using Value = std::optional<std::string>;
  struct Row {
    Value shell;
    Value powermetrics;
    ToolCommand command;
    double seconds;
  };
  const std::string tool = "/usr/bin/powermetrics";
  const ToolCommand ps{"/bin/ps", {}};
  const ToolCommand bare{tool, {}};
  const Row rows[] = {
      {{}, {}, ps, 4.0},
      {"0.1", {}, ps, 0.25},
      {"10", "30", ps, 10.0},
      {"abc", {}, ps, 4.0},
      {" 2", {}, ps, 4.0},
      {"", {}, ps, 4.0},
      {"nan", {}, ps, 0.25},
      {"10", {}, bare, 15.0},
      {{}, "0.5", bare, 1.0},
      {"10", "30", bare, 30.0},
      {{}, "30x", bare, 15.0},
      {{}, "nan", bare, 1.0},
      {{}, {}, {"/opt/powermetrics", {}}, 15.0},
      {{}, {}, {"/usr/bin/env", {tool}}, 4.0},
      {{}, {}, {"/usr/bin/nice", {"-n", "10", tool}}, 15.0},
      {{}, {}, {"/usr/bin/nice", {"-n", "10", tool + "x"}}, 4.0},
      {{}, {}, {"/usr/bin/sudo", {"-n", "/usr/bin/nice", tool}}, 15.0},
  };
  for (const Row& row : rows) {
    const ScopedEnvironment environment{
        {{"QZL_SHELL_TIMEOUT_SEC", row.shell}, {"QZL_PM_TIMEOUT_SEC", row.powermetrics}}};
    EXPECT_EQ(DefaultShellRunner::resolveTimeoutSeconds(row.command.executable, row.command.arguments),
              row.seconds)
        << row.command.executable << ' ' << row.shell.value_or("-") << ' ' << row.powermetrics.value_or("-");
  }
}

TEST(ShellRunner, DescribesItsErrors) {
  struct Row {
    ShellRunnerError error;
    Kind kind;
    std::string what;
    std::tuple<std::string, std::string, double, ShellResult> payload;
  };
  const Row rows[] = {
      {ShellRunnerError::failedToLaunch("x"),
       Kind::failedToLaunch,
       "Failed to launch command: x",
       {"x", "", 0, {}}},
      {ShellRunnerError::nonZeroExit(3, "out", "err"),
       Kind::nonZeroExit,
       "Command exited with status 3: err",
       {"", "", 0, {3, "out", "err"}}},
      {ShellRunnerError::timedOut("/bin/sleep 100", 4),
       Kind::timedOut,
       "Command timed out after 4.0s: /bin/sleep 100",
       {"", "/bin/sleep 100", 4, {}}},
      {ShellRunnerError::failedToComplete("x"),
       Kind::failedToComplete,
       "Failed to complete command: x",
       {"x", "", 0, {}}},
  };
  for (const auto& [error, kind, what, payload] : rows) {
    EXPECT_EQ(error.what(), what);
    EXPECT_EQ(error.kind(), kind) << what;
    const ShellResult result{error.status(), error.stdout(), error.stderr()};
    EXPECT_EQ(std::tuple(error.message(), error.command(), error.seconds(), result), payload) << what;
  }
}

TEST(ShellRunner, ReturnsStatusAndBothStreams) {
  const DefaultShellRunner runner;
  EXPECT_EQ(runScript(runner, "echo out; printf x >&2; exit 3"), (ShellResult{3, "out\n", "x"}));
  EXPECT_EQ(runScript(runner, "kill -9 $$").status, SIGKILL);
  EXPECT_EQ(runScript(runner, "printf 'a\\377z'").stdout, "a\uFFFDz");
  EXPECT_EQ(runScript(runner, "cat"), (ShellResult{0, "", ""}));                // nothing to read from us
  EXPECT_EQ(runner.run("/bin/echo", {"-n", "a b", "*", ""}).stdout, "a b * ");  // no shell in between
}

TEST(ShellRunner, ReturnsTheWholeOutput) {
  const ShellResult large =
      runScript(DefaultShellRunner(),
                "head -c 70000000 /dev/zero | tr '\\0' x; head -c 300000 /dev/zero | tr '\\0' y >&2");
  EXPECT_EQ(large.stdout.size(), 70'000'000U);
  EXPECT_EQ(large.stdout.find_first_not_of('x'), std::string::npos);
  EXPECT_EQ(large.stderr, std::string(300'000, 'y'));
  // What is written after the child's own end belongs to it as well.
  EXPECT_EQ(runScript(DefaultShellRunner(), "(sleep 0.3; echo late; echo later >&2) & echo early"),
            (ShellResult{0, "early\nlate\n", "later\n"}));
}

TEST(ThreadSafeDataCollector, KeepsWhatIsAppended) {
  ThreadSafeDataCollector collector;
  for (const auto* chunk : {"a", "", "bc"}) collector.append(chunk);
  const platform::MutexLock guard(collector.lock);
  EXPECT_EQ(collector.data, "abc");
}

TEST(ShellRunner, EndsAChildThatWritesWithoutEnd) {
  const DefaultShellRunner runner(0.75, 1, {.outputBytes = 2 << 20});
  const std::string bothStreams = "head -c 1000000 /dev/zero >&2; head -c 1097152 /dev/zero";
  EXPECT_EQ(runScript(runner, bothStreams).stdout.size(), 1097152U) << "just as much as it may";
  for (const auto& script : {bothStreams + "; echo", std::string("exec yes")}) {
    const auto error = thrownBy<ShellRunnerError>([&] { runScript(runner, script); });
    EXPECT_STREQ(error.what(), "Failed to complete command: /bin/sh wrote more than 2 MiB");
  }
}

TEST(ShellRunner, SaysWhyACommandDoesNotStart) {
  const TemporaryDirectory folder;
  const std::string plainFile = folder.write("plain", "#!/bin/sh\n");
  const std::pair<std::string, std::string> rows[] = {{"/nowhere/tool", "No such file or directory"},
                                                      {plainFile, "Permission denied"}};
  for (const auto& [executable, why] : rows) {
    const auto error =
        thrownBy<ShellRunnerError>([&, name = executable] { DefaultShellRunner().run(name, {}); });
    EXPECT_EQ(error.kind(), Kind::failedToLaunch);
    EXPECT_EQ(error.what(), "Failed to launch command: " + executable + ": " + why);
  }
}

TEST(ShellRunner, StopsAChildThatOutlivesItsTimeOut) {
  const TemporaryDirectory folder;
  const ScopedEnvironment environment{{{"QZL_SHELL_TIMEOUT_SEC", "0.25"}, {"FOLDER", folder.path()}}};
  EXPECT_EQ(DefaultShellRunner().terminateGraceSeconds(), 0.75);
  EXPECT_EQ(DefaultShellRunner().killGraceSeconds(), 1.0);
  constexpr double terminateGrace = 1.5;
  struct Row {
    std::string script;
    bool takesSIGKILL;
    std::string written = "";
  };
  const Row rows[] = {
      {"trap 'echo TERM > $FOLDER/written; exit' TERM; while :; do sleep 0.02; done", false, "TERM\n"},
      {"exec >&- 2>&-; exec sleep 100", false},  // closed pipes are no end
      {"trap '' TERM; while :; do sleep 0.05; done", true},
      {"trap '' TERM; while :; do echo flood; done", true},
  };
  for (const Row& row : rows) {
    folder.write("written", "");
    const std::string script = "echo $$ > $FOLDER/pid; " + row.script;
    const Clock::time_point start = Clock::now();
    const auto error =
        thrownBy<ShellRunnerError>([&] { runScript(DefaultShellRunner(terminateGrace, 30), script); });
    EXPECT_STREQ(error.what(), ("Command timed out after 0.25s: /bin/sh -c " + script).c_str());
    EXPECT_GE(secondsSince(start), row.takesSIGKILL ? 0.25 + terminateGrace : 0.25) << script;
    EXPECT_LE(secondsSince(start), row.takesSIGKILL ? 20 : 0.25 + terminateGrace) << script;
    EXPECT_EQ(folder.read("written"), row.written);
    EXPECT_EQ(::kill(std::stoi(folder.read("pid")), 0), -1) << "waited for after SIGKILL too: " << script;
  }
}

TEST(ShellRunner, TimesACommandAsItIsNamed) {
  const TemporaryDirectory root;
  const ScopedEnvironment environment{
      {{"QZL_SHELL_TIMEOUT_SEC", "0.25"}, {"QZL_PM_TIMEOUT_SEC", "30"}, {"QZL_TOOL_ROOT", root.path()}}};
  for (const auto* tool : {"usr/bin/powermetrics", "usr/bin/pmset"}) {
    std::filesystem::permissions(root.write(tool, "#!/bin/sh\nsleep 0.6; echo sampled\n"),
                                 std::filesystem::perms::owner_all);
  }
  const DefaultShellRunner runner;
  EXPECT_EQ(runner.run("/usr/bin/nice", {"-n", "1", "/usr/bin/powermetrics"}).stdout, "sampled\n");
  EXPECT_EQ(thrownBy<ShellRunnerError>([&] { runner.run("/usr/bin/pmset", {"-g"}); }).command(),
            "/usr/bin/pmset -g");
}

TEST(ShellRunner, RunsAFewChildrenAtOnceAndTheOthersInTurn) {
  const TemporaryDirectory folder;
  // Less than all of them take one after another: waiting for a turn is no part of it.
  const ScopedEnvironment environment{{{"QZL_SHELL_TIMEOUT_SEC", "1.5"}, {"FOLDER", folder.path()}}};
  const auto run = [](const DefaultShellRunner& runner) {
    runScript(runner, "printf + >> $FOLDER/runs; sleep 0.4; printf - >> $FOLDER/runs");
  };
  std::vector<std::thread> threads;
  for (int number = 0; number < 16; ++number) {
    threads.emplace_back([&] { EXPECT_NO_THROW(run(DefaultShellRunner())); });
  }
  while (folder.read("runs").size() < DefaultShellRunner::mostChildren) std::this_thread::yield();
  const DefaultShellRunner impatient(0.75, 1, {.waitSeconds = 0.01});
  EXPECT_STREQ(thrownBy<ShellRunnerError>([&] { run(impatient); }).what(),
               "Failed to launch command: /bin/sh: too many commands are waiting to run");
  for (std::thread& thread : threads) thread.join();
  std::size_t running = 0;
  std::size_t most = 0;
  for (const char mark : folder.read("runs")) {
    running = mark == '+' ? running + 1 : running - 1;
    most = std::max(most, running);
  }
  EXPECT_EQ(most, DefaultShellRunner::mostChildren);
}

TEST(ShellRunner, DoesNotWaitForAGrandchildBeyondTheTimeOut) {
  const ScopedEnvironment environment{{{"QZL_SHELL_TIMEOUT_SEC", "0.5"}}};
  const Clock::time_point start = Clock::now();
  const ShellResult result = runScript(DefaultShellRunner(), "sleep 30 & echo $!; exit 7");
  EXPECT_EQ(result.status, 7);
  EXPECT_LE(secondsSince(start), 5.0);
  ::kill(std::stoi(result.stdout), SIGKILL);
}

TEST(ShellRunner, GivesTheChildFreshSignalsAndNoDescriptors) {
  const int leaky = ::open("/dev/null", O_RDONLY);  // not close-on-exec, as a careless library leaves it
  sigset_t blocked;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  const auto formerPipeHandler = std::signal(SIGPIPE, SIG_IGN);
  const ShellResult result =
      runScript(DefaultShellRunner(), "grep -E 'Sig(Blk|Ign)' /proc/self/status; ls /proc/self/fd");
  std::signal(SIGPIPE, formerPipeHandler);
  ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
  ::close(leaky);
  std::istringstream answer(result.stdout);
  std::string label;
  std::uint64_t stillBlocked = 0;
  std::uint64_t ignored = 0;
  answer >> label >> std::hex >> stillBlocked >> label >> ignored;
  constexpr std::uint64_t keptByTheLibrary = 0x180000000;  // signals 32 and 33, which no program can set
  EXPECT_EQ(stillBlocked, 0U);
  EXPECT_EQ(ignored & ~keptByTheLibrary, 0U);
  // The fourth descriptor is the folder that ls itself reads.
  EXPECT_THAT(result.stdout, ::testing::EndsWith("\n0\n1\n2\n3\n"));
}

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST(ShellRunner, RunsSideBySideWithoutLeavingAnythingBehind) {
  const DefaultShellRunner runner;
  runner.run("/bin/true", {});
  const std::size_t before = openDescriptors();
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&runner, thread] {
      for (int round = 0; round < 125; ++round) {
        const std::string word = std::to_string(thread * 1000 + round);
        ASSERT_EQ(runner.run("/bin/echo", {word}).stdout, word + "\n");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was not reaped";
  EXPECT_EQ(errno, ECHILD);
}

TEST(ToolCommand, SpeaksNoLanguageButKeepsTheEncoding) {
  using Entries = std::vector<std::string>;
  const std::pair<Entries, Entries> rows[] = {
      {{"A=1", "LC_ALL=de_DE.UTF-8", "LC_CTYPE=C", "LANG=C"}, {"A=1", "LC_CTYPE=de_DE.UTF-8"}},
      {{"LC_ALL=", "LC_CTYPE=fr_FR.UTF-8", "LANG=C", "LANGX=1"}, {"LANGX=1", "LC_CTYPE=fr_FR.UTF-8"}},
      {{"LANG=de_DE.UTF-8", "LANGUAGE=de", "LC_NUMERIC=de_DE", "XLC_ALL=x"},
       {"XLC_ALL=x", "LC_CTYPE=de_DE.UTF-8"}},
      {{"A=1"}, {"A=1"}},
  };
  for (const auto& [entries, environment] : rows) EXPECT_EQ(toolEnvironment(entries), environment);
  const ScopedEnvironment german{{{"LC_ALL", "de_DE.UTF-8"}, {"LANG", "de_DE.UTF-8"}}};
  EXPECT_EQ(runScript(DefaultShellRunner(), "echo \"$LC_ALL,$LANG,$LC_NUMERIC,$LC_CTYPE\"").stdout,
            ",,,de_DE.UTF-8\n");
}

TEST(ToolCommand, FindsTheToolBelowTheRoot) {
  const TemporaryDirectory root;
  const std::string pmset = root.write("usr/bin/pmset", "#!/bin/sh\n");
  const std::string powermetrics = root.write("usr/bin/powermetrics", "#!/bin/sh\n");
  root.write("usr/bin/plain", "not executable");
  for (const std::string& tool : {pmset, powermetrics}) {
    std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
  }
  struct Row {
    ToolCommand named;
    ToolCommand resolved;
  };
  const std::string tool = "/usr/bin/powermetrics";
  const Row rows[] = {
      {{"/usr/bin/pmset", {"-g"}}, {pmset, {"-g"}}},
      {{"/bin/ps", {"-A"}}, {"/bin/ps", {"-A"}}},
      {{"pmset", {"-g"}}, {"pmset", {"-g"}}},
      {{"/usr/bin/plain", {}}, {"/usr/bin/plain", {}}},
      {{"/usr/bin/nice", {"-n", "20", tool, "-n", "1"}},
       {"/usr/bin/nice", {"-n", "20", powermetrics, "-n", "1"}}},
      {{"/usr/bin/sudo", {"-n", "/usr/bin/nice", "-n", "20", tool}},
       {"/usr/bin/nice", {"-n", "20", powermetrics}}},
      {{"/usr/bin/sudo", {"-n", tool, "-i", "/usr/bin/pmset"}}, {powermetrics, {"-i", "/usr/bin/pmset"}}},
      {{"/usr/bin/sudo", {"-n", "/bin/ls", tool}}, {"/usr/bin/sudo", {"-n", "/bin/ls", tool}}},
      {{"/usr/bin/env", {tool}}, {"/usr/bin/env", {tool}}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(resolveToolCommand(row.named.executable, row.named.arguments, root.path().string()),
              row.resolved)
        << row.named.executable;
    EXPECT_EQ(resolveToolCommand(row.named.executable, row.named.arguments, std::nullopt), row.named);
  }
}

}  // namespace
}  // namespace quenzel
