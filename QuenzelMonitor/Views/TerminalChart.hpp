#pragma once

#include <cstddef>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "Base/PointInTime.hpp"

namespace quenzel {

/// One value of a series. A value that is no finite number is a gap.
struct ChartSample {
  PointInTime timestamp = {};
  double value = 0;
};

/// What the axes of a chart say.
struct ChartAxes {
  PointInTime start = {};  ///< the time at the left edge; samples before it are not shown
  PointInTime end = {};    ///< the time at the right edge, likewise
  /// Samples further apart are not joined, because nobody knows what was between them. Of a thinned series
  /// this is a few times the distance of its points.
  double longestJoinSeconds = std::numeric_limits<double>::infinity();
  std::string unit = {};                     ///< stands behind the values of the vertical axis
  std::vector<std::string> timeLabels = {};  ///< spread evenly below the horizontal axis, from edge to edge
};

/// The room for a chart, in characters, its labels included.
struct ChartLayout {
  std::size_t width = 80;
  std::size_t height = 12;
  bool isUnicode = true;  ///< drawn in braille patterns of 2 by 4 dots; else in ASCII, of 1 by 2
};

/// A curve as lines of text, at most `height` of them, none wider than `width`, and without blanks at their
/// ends. The vertical axis always holds 0, and reaches to a round number. Where the labels would leave no
/// room for a curve there is the curve alone; labels that don't fit beside each other are left out. A series
/// without a value to show is the line "(no data)".
/// @param samples oldest first
std::vector<std::string> terminalChart(std::span<const ChartSample> samples, const ChartAxes& axes,
                                       const ChartLayout& layout);

}  // namespace quenzel
