#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QuenzelMonitor/TerminalChart.hpp"
#include "SharedModels/Runtime/Text.hpp"

namespace quenzel {
namespace {

using Lines = std::vector<std::string>;
using Series = std::vector<std::pair<double, double>>;  // second, value

Lines chartOf(const Series& series, ChartAxes axes, ChartLayout layout) {
  std::vector<ChartSample> samples;
  for (const auto& [second, value] : series) samples.push_back({{second}, value});
  return terminalChart(samples, axes, layout);
}

TEST(TerminalChartTest, DrawsWhatWasMeasured) {
  const double none = std::nan(""), infinite = std::numeric_limits<double>::infinity();
  const ChartAxes plain{.start = {0}, .end = {3}}, apart{.start = {0}, .end = {3}, .longestJoinSeconds = 2};
  const ChartAxes framed{.start = {0}, .end = {9}, .unit = "W", .timeLabels = {"-1h", "mid", "now"}};
  struct Row {
    Series series;
    ChartAxes axes;
    ChartLayout layout;
    Lines lines;
  };
  const Row rows[] = {{{{0, 0}, {3, 3}}, plain, {4, 1, false}, {"..''"}},
                      {{{0, -3}, {3, 3}}, plain, {4, 1, false}, {"..''"}},
                      {{{0, 0}, {3, 3}}, apart, {4, 1, false}, {".  '"}},
                      {{{0, 0}, {1, none}, {3, 3}}, plain, {4, 1, false}, {".  '"}},
                      {{{0, 5}, {3, 5}}, plain, {4, 1, false}, {"''''"}},
                      {{{0, 0}, {3, 0}}, plain, {4, 1, false}, {"...."}},
                      {{{1, 2}}, plain, {4, 1, false}, {" '"}},
                      {{{0, 2}}, {}, {4, 1, false}, {"'"}},
                      {{{-9, 9}, {0, 1}, {4, 9}}, plain, {4, 1, false}, {"'"}},
                      {{{0, infinite}, {3, 3}}, plain, {4, 1, false}, {"   '"}},
                      {{}, plain, {40, 9, true}, {"(no data)"}},
                      {{{0, none}}, plain, {4, 9, true}, {"(no "}},
                      {{{0, 0}, {3, 3}}, plain, {2, 1, true}, {"\u2860\u280A"}},
                      {{{0, 0}, {3, 3}}, plain, {0, 1, true}, {}},
                      {{{0, 0}, {9, 3}},
                       framed,
                       {15, 4, false},
                       {"3 W +     ...''", "0 W +..'''", "    +----------", "     -1h    now"}}};
  for (const Row& row : rows) EXPECT_EQ(chartOf(row.series, row.axes, row.layout), row.lines);
  const std::pair<double, const char*> tops[] = {
      {11.3, "12 W +"}, {0.0026, "0.003 W +"}, {25, "25 W +"}, {99, "100 W +"}};
  for (const auto& [value, top] : tops)
    EXPECT_THAT(chartOf({{0, value}}, framed, {40, 7, false})[0], ::testing::HasSubstr(top));
  EXPECT_EQ(chartOf({{0, 25}}, framed, {40, 7, false})[2], "12.5 W +");
}

TEST(TerminalChartTest, NeverLeavesItsRoom) {
  Series series;
  for (int i = 0; i < 60; ++i) series.emplace_back(i, i % 9 == 0 ? std::nan("") : 1e3 * std::sin(i) * i);
  const ChartAxes axes{.start = {0},
                       .end = {59},
                       .longestJoinSeconds = 1,
                       .unit = "Wh",
                       .timeLabels = {"-24 h", "-12 h", "", "now"}};
  for (std::size_t room = 0; room < 40 * 12 * 2; ++room) {
    const ChartLayout layout{room / 24, room / 2 % 12, room % 2 == 0};
    const Lines lines = chartOf(series, axes, layout);
    EXPECT_LE(lines.size(), layout.height);
    for (const std::string& line : lines)
      EXPECT_TRUE(graphemeCount(line) <= layout.width && (layout.isUnicode || isASCIIText(line)) &&
                  !line.ends_with(' '))
          << line;
  }
}

}  // namespace
}  // namespace quenzel
