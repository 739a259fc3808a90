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
#include "MetricsCollectors/ToolCommand.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using ::testing::HasSubstr;
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
  // clang-format off
  const Row rows[] = {
      {{}, {}, ps, 4.0},       {{}, {}, bare, 15.0},      {{}, {}, {"/opt/powermetrics", {}}, 15.0},
      {"0.1", {}, ps, 0.25},   {"abc", {}, ps, 4.0},      {" 2", {}, ps, 4.0},       {"", {}, ps, 4.0},
      {"nan", {}, ps, 0.25},   {"10", {}, ps, 10.0},      {"10", {}, bare, 15.0},    {{}, "30", ps, 4.0},
      {{}, "0.5", bare, 1.0},  {{}, "30", bare, 30.0},    {{}, "30x", bare, 15.0},   {{}, {}, {"/usr/bin/env", {tool}}, 4.0},
      {{}, {}, {"/usr/bin/nice", {"-n", "10", tool}}, 15.0}, {{}, {}, {"/usr/bin/nice", {"-n", "10", "/bin/ls"}}, 4.0},
      {{}, {}, {"/usr/bin/sudo", {"-n", "/usr/bin/nice", tool}}, 15.0},
  };
  // clang-format on
  for (const Row& row : rows) {
    const ScopedEnvironment environment{
        {{"QZL_SHELL_TIMEOUT_SEC", row.shell}, {"QZL_PM_TIMEOUT_SEC", row.powermetrics}}};
    EXPECT_EQ(DefaultShellRunner::resolveTimeoutSeconds(row.command.executable, row.command.arguments),
              row.seconds)
        << row.command.executable << ' ' << row.shell.value_or("-") << ' ' << row.powermetrics.value_or("-");
  }
}

TEST(ShellRunner, DescribesItsErrors) {
  EXPECT_STREQ(ShellRunnerError::failedToLaunch("x").what(), "Failed to launch command: x");
  EXPECT_STREQ(ShellRunnerError::nonZeroExit(3, "out", "err").what(), "Command exited with status 3: err");
  EXPECT_STREQ(ShellRunnerError::timedOut("/bin/sleep 100", 4).what(),
               "Command timed out after 4.0s: /bin/sleep 100");
}

TEST(ShellRunner, ReturnsStatusAndBothStreams) {
  const DefaultShellRunner runner;
  EXPECT_EQ(runScript(runner, "echo out; printf x >&2; exit 3"), (ShellResult{3, "out\n", "x"}));
  EXPECT_EQ(runScript(runner, "kill -9 $$").status, SIGKILL);
  EXPECT_EQ(runScript(runner, "printf 'a\\377z'").stdout, "a\uFFFDz");
  EXPECT_EQ(runScript(runner, "cat"), (ShellResult{0, "", ""}));                // nothing to read from us
  EXPECT_EQ(runner.run("/bin/echo", {"-n", "a b", "*", ""}).stdout, "a b * ");  // no shell in between
}

TEST(ShellRunner, TakesMoreOutputThanAPipeHolds) {
  const ShellResult result =
      runScript(DefaultShellRunner(),
                "head -c 3000000 /dev/zero | tr '\\0' x; head -c 300000 /dev/zero | tr '\\0' y >&2");
  EXPECT_EQ(result.stdout, std::string(3'000'000, 'x'));
  EXPECT_EQ(result.stderr, std::string(300'000, 'y'));
}

TEST(ShellRunner, EndsAChildThatWritesWithoutEnd) {
  const auto error = thrownBy<ShellRunnerError>([] { DefaultShellRunner().run("/usr/bin/yes", {}); });
  EXPECT_STREQ(error.what(), "Failed to launch command: more than 64 MiB of output");
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
  const ScopedEnvironment environment{{{"QZL_SHELL_TIMEOUT_SEC", "0.25"}}};
  struct Row {
    std::string script;
    double least;
    double most;
  };
  const Row rows[] = {
      {"exec sleep 100", 0.25, 2.0},                                    // ends on SIGTERM
      {"trap '' TERM; while :; do sleep 0.05; done", 0.25 + 0.4, 5.0},  // takes SIGKILL
      {"exec >&- 2>&-; exec sleep 100", 0.25, 2.0},                     // closed pipes are no end
      {"trap '' TERM; while :; do echo flood; done", 0.25 + 0.4, 5.0},  // amid a flood
  };
  for (const Row& row : rows) {
    const Clock::time_point start = Clock::now();
    const auto error =
        thrownBy<ShellRunnerError>([&] { runScript(DefaultShellRunner(0.4, 0.5), row.script); });
    EXPECT_EQ(error.kind(), Kind::timedOut);
    EXPECT_EQ(error.seconds(), 0.25);
    EXPECT_EQ(error.what(), "Command timed out after 0.25s: /bin/sh -c " + row.script);
    EXPECT_GE(secondsSince(start), row.least) << row.script;
    EXPECT_LE(secondsSince(start), row.most) << row.script;
  }
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
