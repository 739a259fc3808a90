#include <csignal>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Base/Text.hpp"
#include "Platform/SubprocessSupport.hpp"
#include "SharedModels/Runtime/NotificationCentre.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using platform::PropertyDictionary;
using platform::PropertyValue;
using namespace ::testing;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

using enum RuntimeLogLevel;

TEST(RuntimeLog, ChoosesItsFirstLevel) {
  constexpr auto level = "QZL_LOG_LEVEL", verbose = "QZL_LOG_VERBOSE";
  const std::tuple<std::map<std::string, std::string>, PropertyDictionary, RuntimeLogLevel> rows[] = {
      {{{level, " INFO \n"}}, {{level, "error"}}, info},
      {{{level, "debug"}}, {{level, " Error"}}, error},
      {{{level, "debug"}}, {}, warn},
      {{}, {{level, std::int64_t{1}}}, warn},
      {{{verbose, "1"}}, {}, info},
      {{{verbose, "1"}, {level, "warn"}}, {{level, "error"}}, warn},
      {{{verbose, "true"}}, {}, warn},
      {{{verbose, " 1"}}, {}, warn}};
  for (const auto& [environment, bundle, expected] : rows)
    EXPECT_EQ(RuntimeLog::initialMinimumLevel(environment, &bundle), expected) << PrintToString(environment);
  EXPECT_EQ(RuntimeLog::initialMinimumLevel({}, nullptr), warn);
}

TEST(RuntimeLog, IsSwitchedOffByEnvironmentOrElseInfoPlist) {
  constexpr auto variable = "QZL_LOG_DISABLED";
  const PropertyDictionary silent, on{{variable, true}};
  EXPECT_FALSE(RuntimeLog::isDisabled(std::nullopt, &silent) || RuntimeLog::isDisabled({}, nullptr));
  for (const char* value : {" Yes ", "Y", "on", "TRUE", "1"})
    EXPECT_TRUE(RuntimeLog::isDisabled(value, &silent)) << value;
  for (const char* value : {"01", "", "no"})  // an environment value alone decides
    EXPECT_FALSE(RuntimeLog::isDisabled(value, &on)) << value;
  const auto byBundle = [&](PropertyValue value) {
    const PropertyDictionary bundle{{variable, std::move(value)}};
    return RuntimeLog::isDisabled(std::nullopt, &bundle);
  };
  EXPECT_TRUE(byBundle(true) && byBundle("on") && byBundle(std::int64_t{2}) && byBundle(0.5));
  EXPECT_FALSE(byBundle(false) || byBundle("off") || byBundle(std::int64_t{0}) || byBundle(0.0) ||
               byBundle(PropertyValue::Array{true}));
}

TEST(RuntimeLog, FormatsLinesAndCategories) {
  EXPECT_EQ(RuntimeLog::formattedLine(1731715200.1234, info, "Daemon", "ping received."),
            "[1731715200.123] [INFO] [Daemon] ping received.\n");
  EXPECT_EQ(RuntimeLog::formattedLine(0, error, " Battery Status ", "x"),
            "[0.000] [ERROR] [ Battery Status ] x\n");
  EXPECT_EQ(RuntimeLog::systemLogCategory(" Battery Status "), "Battery_Status");
  EXPECT_EQ(RuntimeLog::systemLogCategory(" \u00A0\n"), "General");
}

/// Moves the shared directory to a folder of the test and restores the log's settings behind it.
class RuntimeLogWriting : public ::testing::Test {
 protected:
  ~RuntimeLogWriting() override { RuntimeLog::configure(warn, false); }

  std::string file() const { return shared_.read("Quenzel/runtime.log"); }

  TemporaryDirectory shared_;
  ScopedEnvironment environment_{
      {{"QZL_SHARED_DIRECTORY", shared_.path().string()}, {"QZL_LOG_DISABLED", std::nullopt}}};
};

TEST_F(RuntimeLogWriting, WritesStandardErrorFileAndNotification) {
  RuntimeLog::configure(warn, true);
  RuntimeLog::configure(error);  // what is not given stays
  std::vector<std::string> lines;
  const auto token = NotificationCentre::shared().observe(
      runtimeLogDidWrite, [&](const auto& userInfo) { lines.push_back(userInfo.at("line")); });
  ::testing::internal::CaptureStderr();
  RuntimeLog::warn("Daemon", "dropped");
  RuntimeLog::error("Daemon", "x");
  const std::string standardError = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(lines, ElementsAre(EndsWith("[ERROR] [Daemon] x\n")));
  EXPECT_EQ(standardError, lines.at(0));
  EXPECT_EQ(file(), lines.at(0));
  EXPECT_EQ(std::filesystem::status(RuntimeLog::sharedLogPath()).permissions(), std::filesystem::perms(0644));
}

TEST_F(RuntimeLogWriting, OutlivesABrokenPipeAndAFullFileAndLeavesAWaitingSignalAlone) {
  const auto logsToNobody = [] {
    auto pipe = platform::makePipe().value();
    pipe.first.reset();
    ::dup2(pipe.second.get(), STDERR_FILENO);
    RuntimeLog::error("Daemon", "nobody reads standard error");
    const rlimit noFileGrows{};
    ::setrlimit(RLIMIT_FSIZE, &noFileGrows);
    RuntimeLog::error("Daemon", "the log file is at its limit");
    // The program's own handling of signals is as it was: unblocked, and fatal.
    ::raise(SIGPIPE);
  };
  EXPECT_EXIT(logsToNobody(), KilledBySignal(SIGPIPE), "");
  EXPECT_THAT(file(), MatchesRegex("[^\n]*\\[Daemon\\] nobody reads standard error\n"));
  const auto logsWithOneWaiting = [] {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::raise(SIGPIPE);
    RuntimeLog::error("Daemon", "x");
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  };
  EXPECT_EXIT(logsWithOneWaiting(), KilledBySignal(SIGPIPE), "x");
}

TEST_F(RuntimeLogWriting, ObeysTheDisabledSwitchAtTheNextCallAndTakesNoLinkOrFifoForItsFile) {
  ::testing::internal::CaptureStderr();
  environment_.set("QZL_LOG_DISABLED", "Yes");
  RuntimeLog::error("Daemon", "unseen");
  environment_.set("QZL_LOG_DISABLED", "no");
  RuntimeLog::error("Daemon", "seen");
  EXPECT_EQ(file().find("unseen"), std::string::npos);
  std::filesystem::rename(RuntimeLog::sharedLogPath(), shared_ / "Quenzel/elsewhere");
  std::filesystem::create_symlink(shared_ / "Quenzel/elsewhere", RuntimeLog::sharedLogPath());
  RuntimeLog::error("Daemon", "x");
  EXPECT_THAT(shared_.read("Quenzel/elsewhere"), EndsWith("] seen\n"));
  std::filesystem::remove(RuntimeLog::sharedLogPath());
  ASSERT_EQ(::mkfifo(RuntimeLog::sharedLogPath().c_str(), 0666), 0);
  RuntimeLog::error("Daemon", "y");
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              MatchesRegex("[^\n]*\\] seen\n[^\n]*\\] x\n[^\n]*\\] y\n"));
}

TEST_F(RuntimeLogWriting, TakesLinesFromManyThreadsWhileTheEnvironmentChanges) {
  internal::CaptureStderr();
  std::vector<std::thread> threads(4);
  for (std::thread& thread : threads)
    thread = std::thread([] {
      for (int line = 0; line < 50; ++line) RuntimeLog::error("Daemon", "whole line");
    });
  for (std::size_t size = 0; size < 200; ++size) environment_.set("QZL_UNRELATED", std::string(size, 'x'));
  for (std::thread& thread : threads) thread.join();
  ::testing::internal::GetCapturedStderr();
  const std::string text = file();
  EXPECT_THAT(splitLines(text),
              AllOf(SizeIs(200), Each(MatchesRegex(R"(\[[0-9.]+\] \[ERROR\] \[Daemon\] whole line)"))));
}

}  // namespace
}  // namespace quenzel
