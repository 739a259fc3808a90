#include "QuenzelMonitor/Views/TerminalChart.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include <fmt/format.h>

#include "Base/Text.hpp"

namespace quenzel {
namespace {

constexpr std::size_t leastCurveColumns = 8;
constexpr std::size_t leastCurveRows = 2;
constexpr std::size_t timeAxisRows = 2;
constexpr std::string_view noData = "(no data)";

/// The characters that a chart is made of.
struct Alphabet {
  std::int64_t dotsAcross;  ///< of one character
  std::int64_t dotsDown;
  const char* axis;
  const char* labelledAxis;
  const char* corner;
  const char* timeAxis;
};
constexpr Alphabet braille{2, 4, "\u2502", "\u2524", "\u2514", "\u2500"};
constexpr Alphabet ascii{1, 2, "|", "+", "+", "-"};

/// The bit of a dot in a braille pattern (ISO/IEC 11548-1), by row and column.
constexpr unsigned brailleBits[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};

std::string brailleCharacter(unsigned bits) {  // U+2800 and the pattern, in UTF-8
  return {'\xE2', static_cast<char>(0xA0 + (bits >> 6)), static_cast<char>(0x80 + (bits & 0x3F))};
}

struct Dot {
  std::int64_t x;
  std::int64_t y;  ///< from the top
};

/// Dots on a grid of characters.
class Canvas {
 public:
  Canvas(std::size_t columns, std::size_t rows, bool isUnicode)
      : alphabet_(isUnicode ? braille : ascii), columns_(columns), cells_(columns * rows) {
    lastDot_ = {static_cast<std::int64_t>(columns) * alphabet_.dotsAcross - 1,
                static_cast<std::int64_t>(rows) * alphabet_.dotsDown - 1};
  }

  Dot lastDot() const { return lastDot_; }

  void draw(Dot from, Dot to) {
    const std::int64_t steps = std::max({std::abs(to.x - from.x), std::abs(to.y - from.y), std::int64_t{1}});
    for (std::int64_t step = 0; step <= steps; ++step)
      set({between(from.x, to.x, step, steps), between(from.y, to.y, step, steps)});
  }

  std::string row(std::size_t index) const {
    std::string text;
    for (std::size_t column = 0; column < columns_; ++column)
      text += character(cells_[index * columns_ + column]);
    return text;
  }

 private:
  static std::int64_t between(std::int64_t from, std::int64_t to, std::int64_t step, std::int64_t steps) {
    return from + std::llround(static_cast<double>((to - from) * step) / static_cast<double>(steps));
  }
  void set(Dot dot) {
    const auto column = static_cast<std::size_t>(dot.x / alphabet_.dotsAcross);
    const auto line = static_cast<std::size_t>(dot.y / alphabet_.dotsDown);
    cells_[line * columns_ + column] |= brailleBits[dot.y % alphabet_.dotsDown][dot.x % alphabet_.dotsAcross];
  }
  std::string character(unsigned bits) const {
    if (bits == 0) return " ";
    return alphabet_.dotsAcross == 1 ? std::string(1, " '.:"[bits]) : brailleCharacter(bits);
  }

  const Alphabet& alphabet_;
  std::size_t columns_;
  std::vector<unsigned> cells_;
  Dot lastDot_{};
};

/// The values at the ends of the vertical axis.
struct ValueRange {
  double low = 0;
  double high = 0;
};

/// The next number that looks well on an axis.
double roundedUp(double value) {
  if (!(value > 0)) return 0;
  const double decade = std::pow(10, std::floor(std::log10(value)));
  for (const double step : {1.0, 1.2, 1.5, 2.0, 2.5, 3.0, 4.0, 5.0, 6.0, 8.0}) {
    if (step * decade >= value) return step * decade;
  }
  return 10 * decade;
}

ValueRange rangeOf(std::span<const ChartSample> samples) {
  ValueRange range;
  for (const ChartSample& sample : samples) {
    if (!std::isfinite(sample.value)) continue;
    range.low = std::min(range.low, sample.value);
    range.high = std::max(range.high, sample.value);
  }
  range = {-roundedUp(-range.low) + 0.0, roundedUp(range.high)};  // + 0.0: no "-0"
  if (!(range.low < range.high)) range.high = range.low + 1;
  return range;
}

/// The place of a value on an axis of the dots 0 to last; at its beginning where the axis has no length.
std::int64_t place(double value, double first, double end, std::int64_t last) {
  const double fraction = (value - first) / (end - first);
  return fraction > 0 ? std::llround(std::min(fraction, 1.0) * static_cast<double>(last)) : 0;
}

std::vector<ChartSample> shownSamples(std::span<const ChartSample> samples, const ChartAxes& axes) {
  std::vector<ChartSample> shown;
  for (const ChartSample& sample : samples) {
    if (sample.timestamp >= axes.start && sample.timestamp <= axes.end) shown.push_back(sample);
  }
  return shown;
}

void drawCurve(Canvas& canvas, std::span<const ChartSample> samples, const ChartAxes& axes,
               ValueRange range) {
  const ChartSample* previous = nullptr;
  Dot previousDot{};
  for (const ChartSample& sample : samples) {
    const bool isGap = !std::isfinite(sample.value);
    if (!isGap) {
      const Dot dot{place(sample.timestamp - axes.start, 0, axes.end - axes.start, canvas.lastDot().x),
                    canvas.lastDot().y - place(sample.value, range.low, range.high, canvas.lastDot().y)};
      const bool isJoined = previous && sample.timestamp - previous->timestamp <= axes.longestJoinSeconds;
      canvas.draw(isJoined ? previousDot : dot, dot);
      previousDot = dot;
    }
    previous = isGap ? nullptr : &sample;
  }
}

std::string withoutEndBlanks(std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

/// The labels from edge to edge; the outermost go first, and one that would touch another is left out.
std::string timeLabelLine(const std::vector<std::string>& labels, std::size_t columns) {
  struct Placed {
    std::size_t begin;
    std::size_t end;
    const std::string* text;
  };
  std::vector<Placed> placed;
  const auto put = [&](std::size_t index) {
    const std::size_t width = graphemeCount(labels[index]);
    if (width == 0 || width > columns) return;
    const std::size_t free = columns - width;
    const std::size_t centre = labels.size() < 2 ? 0 : columns * index / (labels.size() - 1);
    const std::size_t begin = std::min(centre - std::min(centre, width / 2), free);
    const bool fits = std::all_of(placed.begin(), placed.end(), [&](const Placed& other) {
      return begin > other.end || begin + width < other.begin;
    });
    if (fits) placed.push_back({begin, begin + width, &labels[index]});
  };
  for (std::size_t i = 0; i < labels.size(); i += std::max<std::size_t>(labels.size() - 1, 1)) put(i);
  for (std::size_t i = 1; i + 1 < labels.size(); ++i) put(i);
  std::sort(placed.begin(), placed.end(), [](const Placed& a, const Placed& b) { return a.begin < b.begin; });
  std::string line;
  std::size_t column = 0;
  for (const Placed& label : placed) {
    line.append(label.begin - column, ' ').append(*label.text);
    column = label.end;
  }
  return line;
}

/// The text beside a row of the curve: both ends have one, and the middle where a row lies there.
std::string valueLabel(std::size_t row, std::size_t rows, ValueRange range, const std::string& unit) {
  const bool isMiddle = rows >= 5 && row * 2 == rows - 1;
  if (row != 0 && row != rows - 1 && !isMiddle) return "";
  const double value = isMiddle ? (range.low + range.high) / 2 : row == 0 ? range.high : range.low;
  const auto number = value < 1000 ? fmt::format("{:.3g}", value) : fmt::format("{:.0f}", value);
  return withoutEndBlanks(fmt::format("{} {}", number, unit));
}

}  // namespace

std::vector<std::string> terminalChart(std::span<const ChartSample> samples, const ChartAxes& axes,
                                       const ChartLayout& layout) {
  if (layout.width == 0 || layout.height == 0) return {};
  const std::vector<ChartSample> shown = shownSamples(samples, axes);
  const bool isEmpty = std::none_of(shown.begin(), shown.end(),
                                    [](const ChartSample& sample) { return std::isfinite(sample.value); });
  if (isEmpty) return {std::string(noData.substr(0, layout.width))};

  const ValueRange range = rangeOf(shown);
  std::size_t rows = layout.height - std::min(layout.height, timeAxisRows);
  std::vector<std::string> labels(rows);
  std::size_t labelWidth = 0;
  for (std::size_t row = 0; row < rows; ++row) {
    labels[row] = valueLabel(row, rows, range, axes.unit);
    labelWidth = std::max(labelWidth, graphemeCount(labels[row]));
  }
  const std::size_t margin = labelWidth + 2;  // a blank and the axis
  const bool isFramed = rows >= leastCurveRows && layout.width >= margin + leastCurveColumns;
  const std::size_t columns = isFramed ? layout.width - margin : layout.width;
  if (!isFramed) rows = layout.height;

  Canvas canvas(columns, rows, layout.isUnicode);
  drawCurve(canvas, shown, axes, range);
  const Alphabet& alphabet = layout.isUnicode ? braille : ascii;
  std::vector<std::string> lines;
  for (std::size_t row = 0; row < rows; ++row) {
    std::string line = canvas.row(row);
    if (isFramed) {
      const std::string& label = labels[row];
      line = std::string(labelWidth - graphemeCount(label), ' ') + label + ' ' +
             (label.empty() ? alphabet.axis : alphabet.labelledAxis) + line;
    }
    lines.push_back(withoutEndBlanks(std::move(line)));
  }
  if (!isFramed) return lines;
  std::string timeAxis = std::string(labelWidth + 1, ' ') + alphabet.corner;
  for (std::size_t column = 0; column < columns; ++column) timeAxis += alphabet.timeAxis;
  lines.push_back(std::move(timeAxis));
  lines.push_back(withoutEndBlanks(std::string(margin, ' ') + timeLabelLine(axes.timeLabels, columns)));
  return lines;
}

}  // namespace quenzel
