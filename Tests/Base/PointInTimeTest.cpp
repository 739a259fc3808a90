#include <ctime>
#include <limits>

#include <gtest/gtest.h>

#include "Base/PointInTime.hpp"
#include "Tests/Support/ScopedTimeZone.hpp"

namespace quenzel {
namespace {

TEST(PointInTime, ReadsAsACalendarHasItWhereThereIsOne) {
  const testing::ScopedTimeZone zone("XST-1:30");
  const PointInTime time = PointInTime::fromSecondsSince1970(1738324799.9);
  EXPECT_EQ(iso8601Text(time), "2025-01-31T11:59:59Z");
  EXPECT_EQ(localTimestampText(time), "2025-01-31 13:29:59 +0130");
  EXPECT_EQ(localTimeText({-0.1}, "%F %T"), "2001-01-01 01:29:59");
  for (const double seconds : {1e15, -2e15, std::numeric_limits<double>::infinity()})
    EXPECT_EQ(iso8601Text({seconds}), "") << seconds;
}

TEST(PointInTime, NowIsBetweenTwoLooksAtTheClock) {
  const std::time_t before = std::time(nullptr);
  const double seconds = now().secondsSince1970();
  EXPECT_GE(seconds, static_cast<double>(before));
  EXPECT_LE(seconds, static_cast<double>(std::time(nullptr) + 1));
}

}  // namespace
}  // namespace quenzel
