#include <chrono>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <thread>

#include <fcntl.h>
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

using testing::ScopedEnvironment;
using testing::TemporaryDirectory;
using Clock = std::chrono::steady_clock;

ShellResult runScript(const std::string& script, const DefaultShellRunner& runner = DefaultShellRunner()) {
  return runner.run("/bin/sh", {"-c", script});
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// "executable argument argument" taken apart.
ToolCommand commandOf(const std::string& text) {
  std::istringstream words(text);
  std::vector<std::string> all{std::istream_iterator<std::string>(words), {}};
  return {all.at(0), {all.begin() + 1, all.end()}};
}

TEST(ShellRunner, ChoosesTheTimeOut) {
  using Setting = std::optional<std::string>;
  const std::string powermetrics = "/usr/bin/powermetrics";
  // The general time-out that is set, that of powermetrics, the command, and its seconds.
  const std::tuple<Setting, Setting, std::string, double> rows[] = {
      {{}, {}, "ps", 4},
      {"10", "30", "ps", 10},
      {"0.1", {}, "ps", 0.25},
      {"nan", {}, "ps", 0.25},
      {" 2", {}, "ps", 4},
      {"10", {}, powermetrics, 15},
      {{}, "30", powermetrics, 30},
      {{}, "0.5", powermetrics, 1},
      {{}, "nan", powermetrics, 1},
      {{}, {}, "/opt/powermetrics", 15},
      {{}, {}, "/usr/bin/nice -n 10 " + powermetrics, 15},
      {{}, {}, "/usr/bin/nice -n 10 " + powermetrics + "x", 4},
      {{}, {}, "/usr/bin/env " + powermetrics, 4}};
  for (const auto& [general, ofPowermetrics, text, seconds] : rows) {
    const ScopedEnvironment environment{
        {{"QZL_SHELL_TIMEOUT_SEC", general}, {"QZL_PM_TIMEOUT_SEC", ofPowermetrics}}};
    const auto [executable, arguments] = commandOf(text);
    EXPECT_EQ(DefaultShellRunner::resolveTimeoutSeconds(executable, arguments), seconds) << text;
  }
}

TEST(ShellRunner, ReturnsStatusAndTheWholeOutput) {
  const std::pair<std::string, ShellResult> rows[] = {
      {"echo out; printf x >&2; exit 3", {3, "out\n", "x"}},
      {"kill -9 $$", {SIGKILL, "", ""}},
      {"printf 'a\\377z'", {0, "a\uFFFDz", ""}},
      {"cat", {0, "", ""}},  // nothing to read from us
      // What is written after the child's own end belongs to it as well.
      {"(sleep 0.3; echo late; echo later >&2) & echo early", {0, "early\nlate\n", "later\n"}}};
  for (const auto& [script, result] : rows) EXPECT_EQ(runScript(script), result) << script;
  EXPECT_EQ(DefaultShellRunner().run("/bin/echo", {"-n", "a b", "*", ""}).stdout, "a b * ");  // no shell
  const ShellResult large =
      runScript("head -c 70000000 /dev/zero | tr '\\0' x; head -c 300000 /dev/zero | tr '\\0' y >&2");
  EXPECT_EQ(large.stdout.size(), 70'000'000U);
  EXPECT_EQ(large.stdout.find_first_not_of('x'), std::string::npos);
  EXPECT_EQ(large.stderr, std::string(300'000, 'y'));
}

TEST(ShellRunner, EndsAChildThatWritesWithoutEnd) {
  const DefaultShellRunner runner(0.75, 1, {.outputBytes = 2 << 20});
  const std::string bothStreams = "head -c 1000000 /dev/zero >&2; head -c 1097152 /dev/zero";
  EXPECT_EQ(runScript(bothStreams, runner).stdout.size(), 1097152U) << "just as much as it may";
  for (const auto& script : {bothStreams + "; echo", std::string("exec yes")}) {
    const auto error = thrownBy<ShellRunnerError>([&] { runScript(script, runner); });
    EXPECT_STREQ(error.what(), "Failed to complete command: /bin/sh wrote more than 2 MiB");
    EXPECT_EQ(error.message(), "/bin/sh wrote more than 2 MiB");
  }
}

TEST(ShellRunner, SaysWhyACommandDoesNotStart) {
  const TemporaryDirectory folder;
  const std::string plain = folder.write("plain", "#!/bin/sh\n"), gone = folder / "gone";
  for (const auto& why : {plain + ": Permission denied", gone + ": No such file or directory"}) {
    const std::string path = why.substr(0, why.find(':'));
    const auto error = thrownBy<ShellRunnerError>([&] { DefaultShellRunner().run(path, {}); });
    EXPECT_EQ(error.what(), "Failed to launch command: " + why);
    EXPECT_EQ(error.message(), why);
  }
}

TEST(ShellRunner, StopsAChildThatOutlivesItsTimeOut) {
  const TemporaryDirectory folder;
  const ScopedEnvironment environment{{{"QZL_SHELL_TIMEOUT_SEC", "0.25"}, {"FOLDER", folder.path()}}};
  EXPECT_EQ(DefaultShellRunner().terminateGraceSeconds(), 0.75);
  EXPECT_EQ(DefaultShellRunner().killGraceSeconds(), 1.0);
  constexpr double terminateGrace = 1.5;
  const std::tuple<std::string, bool, std::string> rows[] = {
      {"trap 'echo TERM > $FOLDER/written; exit' TERM; while :; do sleep 0.02; done", false, "TERM\n"},
      {"exec >&- 2>&-; exec sleep 100", false, ""},  // closed pipes are no end
      {"trap '' TERM; while :; do echo flood; done", true, ""}};
  for (const auto& [behaviour, takesSIGKILL, written] : rows) {
    folder.write("written", "");
    const std::string script = "echo $$ > $FOLDER/pid; " + behaviour;
    const Clock::time_point start = Clock::now();
    const auto error =
        thrownBy<ShellRunnerError>([&] { runScript(script, DefaultShellRunner(terminateGrace, 30)); });
    EXPECT_EQ(error.what(), "Command timed out after 0.25s: /bin/sh -c " + script);
    EXPECT_EQ(error.command(), "/bin/sh -c " + script);
    EXPECT_EQ(error.seconds(), 0.25);
    EXPECT_GE(secondsSince(start), takesSIGKILL ? 0.25 + terminateGrace : 0.25) << script;
    EXPECT_LE(secondsSince(start), takesSIGKILL ? 20 : 0.25 + terminateGrace) << script;
    EXPECT_EQ(folder.read("written"), written);
    EXPECT_EQ(::kill(std::stoi(folder.read("pid")), 0), -1) << "waited for after SIGKILL too: " << script;
  }
}

TEST(ShellRunner, RunsAFewChildrenAtOnceAndTheOthersInTurnAndLeavesNothingBehind) {
  const TemporaryDirectory folder;
  // Less than all of them take one after another: waiting for a turn is no part of it.
  const ScopedEnvironment environment{{{"QZL_SHELL_TIMEOUT_SEC", "1.5"}, {"FOLDER", folder.path()}}};
  const std::string script = "printf + >> $FOLDER/runs; sleep 0.4; printf - >> $FOLDER/runs";
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  runScript("true");
  const auto before = descriptors();
  std::vector<std::thread> threads;
  for (int number = 0; number < 16; ++number)
    threads.emplace_back([&] { EXPECT_NO_THROW(runScript(script)); });
  while (folder.read("runs").size() < DefaultShellRunner::mostChildren) std::this_thread::yield();
  const DefaultShellRunner impatient(0.75, 1, {.waitSeconds = 0.01});
  EXPECT_STREQ(thrownBy<ShellRunnerError>([&] { runScript(script, impatient); }).what(),
               "Failed to launch command: /bin/sh: too many commands are waiting to run");
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(descriptors(), before);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was not reaped";
  std::size_t running = 0, most = 0;
  for (const char mark : folder.read("runs")) most = std::max(most, mark == '+' ? ++running : --running);
  EXPECT_EQ(most, DefaultShellRunner::mostChildren);
}

TEST(ShellRunner, DoesNotWaitForAGrandchildBeyondTheTimeOut) {
  const ScopedEnvironment environment{{{"QZL_SHELL_TIMEOUT_SEC", "0.5"}}};
  const Clock::time_point start = Clock::now();
  const ShellResult result = runScript("sleep 30 & echo $!; exit 7");
  EXPECT_EQ(result.status, 7);
  EXPECT_LE(secondsSince(start), 5.0);
  ::kill(std::stoi(result.stdout), SIGKILL);
}

TEST(ShellRunner, GivesTheChildFreshSignalsAndNoDescriptors) {
  const int leaky = ::open("/dev/null", O_RDONLY);  // not close-on-exec, as a careless library leaves it
  sigset_t blocked;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  const auto formerPipeHandler = std::signal(SIGPIPE, SIG_IGN);
  const ShellResult terminated = runScript("kill -TERM $$; echo blocked");
  const ShellResult piped = runScript("kill -PIPE $$; echo ignored");
  // The fourth descriptor is the folder that ls itself reads.
  EXPECT_EQ(runScript("ls /proc/self/fd").stdout, "0\n1\n2\n3\n");
  std::signal(SIGPIPE, formerPipeHandler);
  ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
  ::close(leaky);
  EXPECT_EQ(terminated, (ShellResult{SIGTERM, "", ""}));
  EXPECT_EQ(piped, (ShellResult{SIGPIPE, "", ""}));
}

TEST(ToolCommand, SpeaksNoLanguageButKeepsTheEncoding) {
  using Entries = std::vector<std::string>;
  const std::pair<Entries, Entries> rows[] = {
      {{"A=1", "LC_ALL=de_DE.UTF-8", "LC_CTYPE=C", "LANG=C"}, {"A=1", "LC_CTYPE=de_DE.UTF-8"}},
      {{"LC_ALL=", "LC_CTYPE=fr_FR.UTF-8", "LANG=C", "LANGX=1"}, {"LANGX=1", "LC_CTYPE=fr_FR.UTF-8"}},
      {{"LANG=de_DE", "LANGUAGE=de", "LC_NUMERIC=de_DE", "XLC_ALL=x"}, {"XLC_ALL=x", "LC_CTYPE=de_DE"}},
      {{"A=1"}, {"A=1"}}};
  for (const auto& [entries, environment] : rows) EXPECT_EQ(toolEnvironment(entries), environment);
  const ScopedEnvironment german{{{"LC_ALL", "de_DE.UTF-8"}, {"LANG", "de_DE.UTF-8"}}};
  EXPECT_EQ(runScript("echo \"$LC_ALL,$LANG,$LC_CTYPE\"").stdout, ",,de_DE.UTF-8\n");
}

TEST(ToolCommand, FindsTheToolBelowTheRoot) {
  const TemporaryDirectory root;
  for (const auto* tool : {"usr/bin/pmset", "usr/bin/powermetrics"})
    std::filesystem::permissions(root.write(tool, "#!/bin/sh\n"), std::filesystem::perms::owner_all);
  root.write("usr/bin/plain", "not executable");
  const std::string pm = "/usr/bin/powermetrics";
  // What is asked for and what is run, "@" being the root.
  const std::pair<std::string, std::string> rows[] = {
      {"/usr/bin/pmset -g", "@/usr/bin/pmset -g"},
      {"/bin/ps -A", "/bin/ps -A"},
      {"pmset -g", "pmset -g"},
      {"/usr/bin/plain", "/usr/bin/plain"},
      {"/usr/bin/nice -n 20 " + pm + " -n 1", "/usr/bin/nice -n 20 @" + pm + " -n 1"},
      {"/usr/bin/sudo -n /usr/bin/nice -n 20 " + pm, "/usr/bin/nice -n 20 @" + pm},
      {"/usr/bin/sudo -n " + pm + " -i /usr/bin/pmset", "@" + pm + " -i /usr/bin/pmset"},
      {"/usr/bin/sudo -n /bin/ls " + pm, "/usr/bin/sudo -n /bin/ls " + pm},
      {"/usr/bin/env " + pm, "/usr/bin/env " + pm}};
  for (auto [text, resolved] : rows) {
    if (const auto at = resolved.find('@'); at != std::string::npos) resolved.replace(at, 1, root.path());
    const ToolCommand named = commandOf(text);
    EXPECT_EQ(resolveToolCommand(named.executable, named.arguments, root.path().string()),
              commandOf(resolved));
    EXPECT_EQ(resolveToolCommand(named.executable, named.arguments, std::nullopt), named);
  }
}

}  // namespace
}  // namespace quenzel
