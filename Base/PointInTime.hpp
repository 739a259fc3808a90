#pragma once

#include <compare>
#include <string>

namespace quenzel {

/// An instant, counted in seconds from 2001-01-01T00:00:00Z as JSON has it; the database counts from 1970.
struct PointInTime {
  /// What lies between the two epochs.
  static constexpr double epochOffsetSeconds = 978307200;

  double secondsSince2001 = 0;

  static constexpr PointInTime fromSecondsSince1970(double seconds) { return {seconds - epochOffsetSeconds}; }
  constexpr double secondsSince1970() const { return secondsSince2001 + epochOffsetSeconds; }

  auto operator<=>(const PointInTime&) const = default;  // NOLINT(modernize-use-nullptr): none is here
};

/// Seconds from `earlier` to `later`; negative when they stand the other way round.
constexpr double operator-(PointInTime later, PointInTime earlier) {
  return later.secondsSince2001 - earlier.secondsSince2001;
}
constexpr PointInTime operator+(PointInTime time, double seconds) {
  return {time.secondsSince2001 + seconds};
}
constexpr PointInTime operator-(PointInTime time, double seconds) {
  return {time.secondsSince2001 - seconds};
}

/// The wall clock, which may be set back.
PointInTime now();

/// ISO 8601 in UTC with whole seconds: "2025-01-31T12:00:00Z"; empty for an instant beyond any calendar.
std::string iso8601Text(PointInTime time);

/// The machine's local time in a form of strftime(3); empty for an instant beyond any calendar.
std::string localTimeText(PointInTime time, const char* format);

/// A moment as every report for people shows it: local time with its offset from UTC, as in
/// "2025-01-31 13:00:00 +0100"; empty for an instant beyond any calendar.
std::string localTimestampText(PointInTime time);

}  // namespace quenzel
