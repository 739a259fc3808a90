#pragma once

#include <algorithm>

namespace quenzel {

// The one trapezoid rule by which power readings become energy. A slice lies between two readings that follow
// one another; however long it is, it counts as a minute at most, so that a gap in sampling (sleep, nobody
// sampled) adds no more than a minute at the average of the readings that border it.

inline constexpr double longestSliceSeconds = 60;

/// The hours that a slice counts for; 0 unless time went forward.
constexpr double sliceHours(double seconds) {
  return seconds > 0 ? std::min(seconds, longestSliceSeconds) / 3600 : 0;
}

/// Watt-hours of a slice of that many counted hours; never negative.
constexpr double sliceWh(double hours, double earlierW, double laterW) {
  const double averageW = (earlierW + laterW) * 0.5;
  return averageW > 0 ? hours * averageW : 0;
}

}  // namespace quenzel
