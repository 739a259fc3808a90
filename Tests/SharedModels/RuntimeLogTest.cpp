#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "SharedModels/Runtime/NotificationCentre.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using platform::PropertyDictionary;
using platform::PropertyValue;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

constexpr auto error = RuntimeLogLevel::error;
constexpr auto warn = RuntimeLogLevel::warn;
constexpr auto info = RuntimeLogLevel::info;

TEST(RuntimeLog, ChoosesItsFirstLevel) {
  using Environment = std::map<std::string, std::string>;
  struct Row {
    Environment environment;
    PropertyDictionary infoDictionary;
    RuntimeLogLevel level;
  };
  const Row rows[] = {
      {{}, {}, warn},
      {{{"QZL_LOG_LEVEL", " INFO \n"}}, {{"QZL_LOG_LEVEL", "error"}}, info},
      {{{"QZL_LOG_LEVEL", "debug"}}, {{"QZL_LOG_LEVEL", " Error"}}, error},
      {{{"QZL_LOG_LEVEL", "debug"}}, {}, warn},
      {{}, {{"QZL_LOG_LEVEL", std::int64_t{1}}}, warn},
      {{{"QZL_LOG_VERBOSE", "1"}}, {}, info},
      {{{"QZL_LOG_VERBOSE", "true"}}, {}, warn},
      {{{"QZL_LOG_VERBOSE", " 1"}}, {}, warn},
      {{{"QZL_LOG_VERBOSE", "1"}, {"QZL_LOG_LEVEL", "error"}}, {}, error},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(RuntimeLog::initialMinimumLevel(row.environment, &row.infoDictionary), row.level)
        << ::testing::PrintToString(row.environment);
  }
  EXPECT_EQ(RuntimeLog::initialMinimumLevel({}, nullptr), warn);
}

TEST(RuntimeLog, IsSwitchedOffByEnvironmentOrElseInfoPlist) {
  struct Row {
    std::optional<std::string> environment;
    std::optional<PropertyValue> infoValue;
    bool disabled;
  };
  const Row rows[] = {
      {std::nullopt, std::nullopt, false},
      {" Yes ", std::nullopt, true},
      {"Y", std::nullopt, true},
      {"on", std::nullopt, true},
      {"TRUE", std::nullopt, true},
      {"1", std::nullopt, true},
      {"01", std::nullopt, false},
      {"", PropertyValue(true), false},  // an environment value alone decides
      {"no", PropertyValue(true), false},
      {std::nullopt, PropertyValue(true), true},
      {std::nullopt, PropertyValue("on"), true},
      {std::nullopt, PropertyValue("off"), false},
      {std::nullopt, PropertyValue(std::int64_t{2}), true},
      {std::nullopt, PropertyValue(0.0), false},
      {std::nullopt, PropertyValue(PropertyValue::Array{true}), false},
  };
  for (const Row& row : rows) {
    PropertyDictionary dictionary;
    if (row.infoValue) dictionary.emplace("QZL_LOG_DISABLED", *row.infoValue);
    EXPECT_EQ(RuntimeLog::isDisabled(row.environment, &dictionary), row.disabled)
        << row.environment.value_or("(unset)");
  }
}

TEST(RuntimeLog, FormatsLinesAndCategories) {
  EXPECT_EQ(RuntimeLog::formattedLine(1731715200.1234, info, "Daemon", "ping received."),
            "[1731715200.123] [INFO] [Daemon] ping received.\n");
  EXPECT_EQ(RuntimeLog::formattedLine(0, warn, "", "x"), "[0.000] [WARN] [] x\n");
  EXPECT_EQ(RuntimeLog::formattedLine(0, error, " Battery Status ", "x"),
            "[0.000] [ERROR] [ Battery Status ] x\n");
  EXPECT_EQ(RuntimeLog::systemLogCategory(" Battery Status "), "Battery_Status");
  EXPECT_EQ(RuntimeLog::systemLogCategory(" \u00A0\n"), "General");
  EXPECT_EQ(systemLogType(warn), platform::SystemLogType::error);
  EXPECT_EQ(systemLogType(info), platform::SystemLogType::info);
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
  std::vector<std::string> lines;
  const auto token = NotificationCentre::shared().observe(
      runtimeLogDidWrite, [&](const auto& userInfo) { lines.push_back(userInfo.at("line")); });
  ::testing::internal::CaptureStderr();
  RuntimeLog::info("Daemon", "dropped");
  RuntimeLog::error("Daemon", "x");
  const std::string standardError = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(lines, ElementsAre(EndsWith("[ERROR] [Daemon] x\n")));
  EXPECT_EQ(standardError, lines.at(0));
  EXPECT_EQ(file(), lines.at(0));
  struct stat status {};
  ASSERT_EQ(::stat(RuntimeLog::sharedLogPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644U);
}

TEST_F(RuntimeLogWriting, ObeysTheDisabledSwitchAtTheNextCall) {
  ::testing::internal::CaptureStderr();
  environment_.set("QZL_LOG_DISABLED", "Yes");
  RuntimeLog::error("Daemon", "unseen");
  environment_.set("QZL_LOG_DISABLED", "no");
  RuntimeLog::error("Daemon", "seen");
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), EndsWith("] seen\n"));
  EXPECT_EQ(file().find("unseen"), std::string::npos);
}

TEST_F(RuntimeLogWriting, NeitherFollowsALinkNorBlocksOnAFifo) {
  shared_.write("Quenzel/elsewhere", "");
  std::filesystem::create_symlink(shared_ / "Quenzel/elsewhere", RuntimeLog::sharedLogPath());
  ::testing::internal::CaptureStderr();
  RuntimeLog::error("Daemon", "x");
  EXPECT_EQ(shared_.read("Quenzel/elsewhere"), "");
  std::filesystem::remove(RuntimeLog::sharedLogPath());
  ASSERT_EQ(::mkfifo(RuntimeLog::sharedLogPath().c_str(), 0666), 0);
  RuntimeLog::error("Daemon", "y");
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), EndsWith("] y\n"));
}

TEST_F(RuntimeLogWriting, TakesLinesFromManyThreadsWhileTheEnvironmentChanges) {
  ::testing::internal::CaptureStderr();
  std::vector<std::thread> threads;
  for (int writer = 0; writer < 4; ++writer) {
    threads.emplace_back([] {
      for (int line = 0; line < 50; ++line) RuntimeLog::error("Daemon", "whole line");
    });
  }
  for (int round = 0; round < 200; ++round) {
    platform::setEnvironmentValue("QZL_UNRELATED", std::string(static_cast<std::size_t>(round), 'x'));
  }
  for (std::thread& thread : threads) thread.join();
  platform::setEnvironmentValue("QZL_UNRELATED", std::nullopt);
  ::testing::internal::GetCapturedStderr();
  const std::string text = file();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 200);
  for (std::size_t start = 0; start < text.size(); start = text.find('\n', start) + 1) {
    ASSERT_EQ(text.substr(text.find(' ', start), 29), " [ERROR] [Daemon] whole line\n");
  }
}

TEST(NotificationCentre, StopsTellingWhoLetGoOfTheToken) {
  NotificationCentre centre;
  int heard = 0;
  auto token = centre.observe("name", [&](const auto&) {
    ++heard;
    centre.post("other", {});  // from inside an observer
  });
  centre.post("name", {});
  centre.post("another", {});
  token.reset();
  centre.post("name", {});
  EXPECT_EQ(heard, 1);
}

}  // namespace
}  // namespace quenzel
