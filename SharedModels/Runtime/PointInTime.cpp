#include "SharedModels/Runtime/PointInTime.hpp"

#include <chrono>
#include <cmath>
#include <ctime>

namespace quenzel {

PointInTime now() {
  using std::chrono::microseconds;
  // Counted from 2001 before it becomes a double, which holds the microseconds of today but not its
  // nanoseconds.
  const auto since1970 = std::chrono::system_clock::now().time_since_epoch();
  const auto since2001 =
      std::chrono::duration_cast<microseconds>(since1970 - std::chrono::seconds(978307200));
  return {static_cast<double>(since2001.count()) / 1e6};
}

std::string iso8601Text(PointInTime time) {
  const auto seconds = static_cast<std::time_t>(std::floor(time.secondsSince1970()));
  std::tm fields{};
  if (::gmtime_r(&seconds, &fields) == nullptr) return "";
  char text[48];
  return {text, std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &fields)};
}

}  // namespace quenzel
