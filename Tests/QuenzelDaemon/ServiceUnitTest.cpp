#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/Support/Command.hpp"

namespace quenzel {
namespace {

using ::testing::HasSubstr;
using testing::runCommand;

const std::string units = QUENZEL_BINARY_DIRECTORY "/../QuenzelDaemon/com.quenzel.metricsd.";

TEST(ServiceUnit, ExposesLessThanTwo) {
  if (runCommand("systemd-analyze --version").status != 0)
    GTEST_SKIP() << "NOT CHECKED: systemd-analyze is not installed";
  // The threshold is in tenths; beyond it the command fails.
  const auto result =
      runCommand("systemd-analyze security --offline=true --no-pager --threshold=19 " + units + "service");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_THAT(result.output, HasSubstr("Overall exposure level for com.quenzel.metricsd.service: 1."));
}

TEST(ServiceUnit, HasNoLimitOfStartsThatAClientCouldUseUp) {
  for (const std::string unit : {"service", "socket"})
    EXPECT_THAT(runCommand("cat " + units + unit).output, HasSubstr("\nStartLimitIntervalSec=0\n"));
  EXPECT_THAT(runCommand("cat " + units + "socket").output, HasSubstr("\nTriggerLimitIntervalSec=0\n"));
}

}  // namespace
}  // namespace quenzel
