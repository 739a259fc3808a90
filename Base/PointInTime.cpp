#include "Base/PointInTime.hpp"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>

namespace quenzel {

PointInTime now() {
  using std::chrono::microseconds;
  // Counted from 2001 before it becomes a double, which holds the microseconds of today but not its
  // nanoseconds.
  const auto since1970 = std::chrono::system_clock::now().time_since_epoch();
  const std::chrono::seconds epochOffset(static_cast<std::int64_t>(PointInTime::epochOffsetSeconds));
  const auto since2001 = std::chrono::duration_cast<microseconds>(since1970 - epochOffset);
  return {static_cast<double>(since2001.count()) / 1e6};
}

namespace {

using BreakDown = std::tm* (*)(const std::time_t*, std::tm*);

std::string text(PointInTime time, const char* format, BreakDown breakDown) {
  constexpr double mostSeconds = 1e15;  // far beyond any calendar, far within any integer
  const double sinceEpoch = std::floor(time.secondsSince1970());
  if (!(std::abs(sinceEpoch) < mostSeconds)) return "";
  const auto seconds = static_cast<std::time_t>(sinceEpoch);
  std::tm fields{};
  if (breakDown(&seconds, &fields) == nullptr) return "";
  char buffer[64];
  return {buffer, std::strftime(buffer, sizeof(buffer), format, &fields)};
}

}  // namespace

std::string iso8601Text(PointInTime time) { return text(time, "%Y-%m-%dT%H:%M:%SZ", ::gmtime_r); }

std::string localTimeText(PointInTime time, const char* format) { return text(time, format, ::localtime_r); }

std::string localTimestampText(PointInTime time) { return localTimeText(time, "%Y-%m-%d %H:%M:%S %z"); }

}  // namespace quenzel
