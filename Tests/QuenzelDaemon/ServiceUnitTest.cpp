#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/Support/Command.hpp"

namespace quenzel {
namespace {

using ::testing::HasSubstr;
using testing::runCommand;

constexpr const char* service = QUENZEL_BINARY_DIRECTORY "/../QuenzelDaemon/com.quenzel.metricsd.service";

TEST(ServiceUnit, ExposesLessThanTwo) {
  if (runCommand("systemd-analyze --version").status != 0)
    GTEST_SKIP() << "NOT CHECKED: systemd-analyze is not installed";
  const std::string analysis = std::string("systemd-analyze security --offline=true --no-pager ");
  const auto result = runCommand(analysis + "--threshold=19 " + service);  // tenths; fails above it
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_THAT(result.output, HasSubstr("Overall exposure level for com.quenzel.metricsd.service: 1."));
}

TEST(ServiceUnit, HasNoLimitOfStartsThatAClientCouldUseUp) {
  EXPECT_THAT(runCommand(std::string("cat ") + service).output, HasSubstr("\nStartLimitIntervalSec=0\n"));
  const std::string socket =
      runCommand("cat " QUENZEL_BINARY_DIRECTORY "/../QuenzelDaemon/com.quenzel.metricsd.socket").output;
  EXPECT_THAT(socket, HasSubstr("\nStartLimitIntervalSec=0\n"));
  EXPECT_THAT(socket, HasSubstr("\nTriggerLimitIntervalSec=0\n"));
}

}  // namespace
}  // namespace quenzel
