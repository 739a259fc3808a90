#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

#include <gtest/gtest.h>

#include "Base/Number.hpp"
#include "Base/Text.hpp"
#include "SharedModels/DetailsDataPipeline/BatteryDrainRate.hpp"
#include "SharedModels/GraphBuildEngine/GraphPeriod.hpp"
#include "SharedModels/GraphBuildEngine/PowerTrendSmoothing.hpp"
#include "SharedModels/GraphBuildEngine/TrendDownsampling.hpp"

namespace quenzel {
namespace {

using namespace GraphBuildEngine;
using Points = std::vector<PowerTrendPoint>;
using Watts = std::vector<double>;
const double none = std::nan("");

/// Points 20 s apart whose parts differ from the total and from each other.
Points pointsOf(const Watts& totals) {
  Points points;
  for (const double w : totals) {
    const auto id = static_cast<TrendPointID>(points.size());
    points.push_back({id, {static_cast<double>(id) * 20}, w, 2 * w, 3 * w, 4 * w, id % 2 == 1});
  }
  return points;
}

Watts totalsOf(const Points& points) {
  Watts totals;
  for (const PowerTrendPoint& point : points) totals.push_back(point.totalW);
  return totals;
}

/// The columns of a row such as "0 10 | 10 40".
std::vector<Watts> numbers(std::string_view row) {
  std::vector<Watts> columns(1);
  for (const std::string_view word : splitWhitespace(row)) {
    if (word == "|")
      columns.emplace_back();
    else
      columns.back().push_back(parseDouble(word).value());
  }
  return columns;
}

TEST(PowerTrendTest, ClampsStepsAndCarriesVanishedPartsForward) {
  // The seconds, the watts and the watts that the clamp leaves.
  for (const char* row :
       {"| |", "0 | 99 | 99", "0 10 | 10 40 | 10 28", "0 1 | 10 40 | 10 14", "0 10 | 40 10 | 40 22",
        "0 2 | 10 40 | 10 14", "0 2.5 | 10 40 | 10 14.5", "10 0 | 10 40 | 10 14", "5 5 | 10 -40 | 10 6",
        "0 nan 1 | 10 40 40 | 10 14 18", "0 10 20 | 10 40 40 | 10 28 40", "0 1000 | 0 1000 | 0 1000"}) {
    const std::vector<Watts> columns = numbers(row);
    Points points;
    for (std::size_t i = 0; i < columns[1].size(); ++i)
      points.push_back({.timestamp = {columns[0][i]}, .totalW = columns[1][i]});
    EXPECT_EQ(totalsOf(clampRateOfChange(points)), columns[2]) << row;
  }
  const double parts[][4] = {
      {2, 0, 5, 2},    {2, 0.01, 5, 2},         {2, 0.011, 5, 0.011}, {2, 0, 0.5, 0}, {2, 0, 0.51, 2},
      {2, -1, 0.5, 0}, {0.01, 0.005, 5, 0.005}, {0.011, 0, 5, 0.011}, {0, -1, 5, 0},  {2, 9, 5, 6},
      {9, 1, 5, 5}};
  for (const auto& [previousW, partW, totalW, carriedW] : parts) {
    for (const auto part : std::span(powerFields).subspan(1)) {
      Points points{{.totalW = 5}, {.timestamp = {1}, .totalW = totalW}};
      points[0].*part = previousW, points[1].*part = partW;
      EXPECT_DOUBLE_EQ(clampRateOfChange(points)[1].*part, carriedW) << previousW << " " << partW;
    }
  }
}

TEST(PowerTrendTest, FillsDipsFiltersSpikesAndSmooths) {
  const auto medians = [](int window) {
    return [=](const Points& points) { return medianFilter(points, window); };
  };
  const auto smooth = [](const Points& points) { return exponentialSmooth(points, 0.25); };
  static const Watts mixed{1, 9, 2, 8, 3, 7};
  const std::tuple<std::function<Points(Points)>, Watts, Watts> rows[] = {
      {replaceTransientDips, {12, 0.25, 16}, {12, 14, 16}},
      {replaceTransientDips, {12, 0.5, 0.5, 16}, {12, 0.5, 0.5, 16}},
      {replaceTransientDips, {12, 0.5, 14, -3, 20}, {12, 13, 14, 17, 20}},
      {replaceTransientDips, {12, 1, 12}, {12, 1, 12}},
      {replaceTransientDips, {10, 0, 12}, {10, 0, 12}},
      {replaceTransientDips, {12, 0, 10}, {12, 0, 10}},
      {replaceTransientDips, {12, 0}, {12, 0}},
      {medians(5), mixed, {2, 5, 3, 7, 5, 7}},
      {medians(3), mixed, {5, 2, 8, 3, 7, 5}},
      {medians(-4), mixed, {5, 2, 8, 3, 7, 5}},
      {medians(7), mixed, {5, 3, 5, 5, 7, 5}},
      {medians(99), {1, 9, 2}, {2, 2, 2}},
      {medians(5), {1, 9}, {1, 9}},
      {smooth, {8, 16, 16}, {8, 10, 11.5}},
      {smooth, {8, 8, 8}, {8, 8, 8}},
      {smooth, {}, {}}};
  for (const auto& [stage, in, out] : rows)
    EXPECT_EQ(stage(pointsOf(in)), pointsOf(out)) << testing::PrintToString(in);
  for (Watts five : {Watts{1, 2, 3, 4, 5}, Watts{1, 1, 3, 4, 4}, Watts{3, 3, 3, 3, 9}}) {
    do EXPECT_EQ(medianFilter(pointsOf(five), 5)[2].totalW, 3) << five[0] << five[1] << five[2] << five[3];
    while (std::next_permutation(five.begin(), five.end()));
  }
  EXPECT_EQ(median({}), 0);
}

TEST(PowerTrendTest, PreparesAndChainsWhatAPeriodShows) {
  const DrainSnapshot snapshot{.timestamp = {1.5},
                               .totalDischargeW = 20,
                               .processes = {{.drainW = 3}, {.drainW = -1}},
                               .components = {.screenW = 1, .usbW = 2, .cpuW = 999, .ramW = 999},
                               .unattributedW = none,
                               .powerContext = PowerUsageContext{true, 1},
                               .batteryStatus = BatteryStatusSample{.levelPercent = 80}};
  const PreparedSnapshot prepared = preparedSnapshot(snapshot);
  EXPECT_EQ(std::pair(powerTrend({&prepared, 1}), prepared.batteryLevelPercent),
            std::pair(Points{{1500, {1.5}, 20, 3, 3, 0, true}}, std::optional(80.0)));
  const DrainSnapshot plugged{.powerContext = PowerUsageContext{false, 1}};
  EXPECT_FALSE(preparedSnapshot(plugged).onBatteryPower || preparedSnapshot({}).onBatteryPower);
  std::vector<PreparedSnapshot> history;
  for (int i = 0; i < 50; ++i)
    history.push_back(
        {.timestamp = {i * 20.0}, .totalW = i % 7 * 30.0, .batteryLevelPercent = 90 - i / 10.0});
  const GraphPeriodTrends trends = buildPeriodTrends(history, {"1h", 3600, 10});
  const Points smoothed =
      exponentialSmooth(medianFilter(replaceTransientDips(clampRateOfChange(powerTrend(history))), 5), 0.2);
  EXPECT_EQ(trends.powerTrend, downsample(smoothed, 10));
  ASSERT_FALSE(trends.energyTrend.empty());
  EXPECT_EQ(trends.energyTrend.back(), buildEnergyTrend(smoothed).back())
      << "integrated before it is thinned";
  EXPECT_NEAR(trends.batteryDrainRatePerHour.value_or(0), 18, 1e-9);  // 0.1 % in 20 s
  EXPECT_EQ(trends.reliableBatteryDrainRatePerHour, trends.batteryDrainRatePerHour);
  EXPECT_EQ(buildPeriodTrends({}, {}), GraphPeriodTrends{});
  EXPECT_EQ(chartAnchorTimestamp(history, prepared), PointInTime{980});
  EXPECT_EQ(chartAnchorTimestamp({}, prepared), PointInTime{1.5});
  EXPECT_EQ(chartAnchorTimestamp(std::vector{snapshot}, DrainSnapshot{}), PointInTime{1.5});
  EXPECT_EQ(chartAnchorTimestamp({}, snapshot), PointInTime{1.5});
}

TEST(PowerTrendTest, ThinsAndKeepsTheNewest) {
  Watts ramp(1000);
  std::iota(ramp.begin(), ramp.end(), 0);
  const Points week = pointsOf(ramp);
  const std::vector<EnergyTrendPoint> energy = buildEnergyTrend(week);
  // Points, the most that are shown and, of points with 0, 1, 2, ... W, those that are.
  for (const char* row : {"0 5 |", "3 3 | 0 1 2", "6 5 | 0.5 2.5 4.5 5", "7 3 | 1 4 6", "6 3 | 0.5 4.5 5",
                          "4 1 | 1.5 3", "4 -9 | 0 1 2 3", "1 0 | 0"}) {
    const std::vector<Watts> columns = numbers(row);
    const auto count = static_cast<std::size_t>(columns[0][0]);
    EXPECT_EQ(totalsOf(downsample(std::span(week).first(count), std::lround(columns[0][1]))), columns[1])
        << row;
  }
  EXPECT_EQ(downsample(week, 300).at(1), (PowerTrendPoint{4, {80}, 5.5, 11, 16.5, 22, false}));
  EXPECT_EQ(std::pair(downsample(week, 300).size(),
                      downsampleEnergyTrend(std::span(energy).first(301), 300).size()),
            std::pair(251UL, 151UL));
  for (std::size_t count = 1; count < 40; ++count) {
    EXPECT_EQ(downsampleEnergyTrend(std::span(energy).first(count), -1).size(), count) << "no limit";
    for (std::int64_t budget = 0; budget < 42; ++budget) {
      const Points power = downsample(std::span(week).first(count), budget);
      const auto totals = downsampleEnergyTrend(std::span(energy).first(count), budget);
      ASSERT_FALSE(power.empty() || totals.empty());
      EXPECT_EQ(std::tie(power.back(), totals.back()), std::tie(week[count - 1], energy[count - 1]));
      EXPECT_LE(static_cast<std::int64_t>(std::max(power.size(), totals.size())),
                std::max<std::int64_t>(budget, 1) + 1)
          << count;
    }
  }
}

TEST(PowerTrendTest, IntegratesEnergyAndFollowsTheBattery) {
  // 600 s count as 60; time that stands still, runs back or is none gives no point; a negative mean draws
  // nothing
  const double rows[][3] = {{0, 10, 0},  {600, 26, 1}, {600, 34, 0}, {636, 6, 0},
                            {630, 6, 0}, {none, 6, 0}, {700, -8, 1}, {736, 28, 0}};
  Points power;
  for (const auto& [second, watts, onBattery] : rows)
    power.push_back({.timestamp = {second}, .totalW = watts, .onBatteryPower = onBattery > 0});
  EXPECT_EQ(buildEnergyTrend(power),
            (std::vector<EnergyTrendPoint>{
                {0, {0}, 0, 0}, {0, {600}, 0.3, 0.3}, {0, {636}, 0.5, 0.3}, {0, {736}, 0.6, 0.4}}))
      << "either end on battery counts";
  std::vector<PreparedSnapshot> snapshots;
  for (int i = 0; i < 8; ++i) snapshots.push_back({.timestamp = {i * 60.0}, .batteryLevelPercent = 50.0 - i});
  snapshots[4].batteryLevelPercent.reset();
  for (const char* row : {"0 3 |", "4 10 | 50 49 48 47", "7 3 | 50 48 44", "8 3 | 50 48 44 43", "8 0 | 50 43",
                          "5 1 | 50", "4 -1 | 50 49 48 47"}) {
    const std::vector<Watts> columns = numbers(row);
    const auto shown = std::span(snapshots).first(static_cast<std::size_t>(columns[0][0]));
    Watts levels;
    for (const auto& point : buildBatteryLevelTrend(shown, std::lround(columns[0][1])))
      levels.push_back(point.levelPercent);
    EXPECT_EQ(levels, columns[1]) << row;
  }
  EXPECT_TRUE(buildBatteryLevelTrend({}, 10).empty());
  const DrainSnapshot read{.timestamp = {7}, .batteryStatus = BatteryStatusSample{.levelPercent = 80}};
  EXPECT_EQ(buildBatteryLevelTrend({DrainSnapshot{}, read}, 10),
            (std::vector<BatteryLevelPoint>{{7000, {7}, 80}}));
}

TEST(PowerTrendTest, TellsARateAndWhetherItMayBeShown) {
  constexpr auto absent = std::nullopt;
  using Rate = std::optional<double>;
  const std::tuple<std::vector<BatteryLevelReading>, Rate, Rate> rows[] = {
      {{}, absent, absent},
      {{{{0}, 80}}, absent, absent},
      {{{{0}, 80}, {{36}, 79}}, absent, absent},
      {{{{0}, 80}, {{45}, 79}}, 80, absent},
      {{{{0}, 80}, {{45}, 77}}, 240, 240},
      {{{{0}, 80}, {{450}, 78}}, 16, absent},
      {{{{0}, 80}, {{600}, 79}}, 6, 6},
      {{{{0}, 99}, {{100}, 80}, {{1000}, 78}}, 8, 8},                  // the cutoff itself is inside
      {{{{0}, 99}, {{99}, 90}, {{1000}, 78}}, absent, absent},         // one reading is left
      {{{{0}, 99}, {{2000}, 80}, {{1000}, 90}, {{2600}, 79}}, 6, 6}};  // the clock was set back in between
  for (const auto& [readings, rate, shown] : rows) {
    EXPECT_EQ(batteryDrainRatePerHour(readings), rate) << (&readings - &std::get<0>(rows[0]));
    EXPECT_EQ(reliableBatteryDrainRatePerHour(readings), shown);
  }
  const std::vector<PreparedSnapshot> snapshots{
      {.batteryLevelPercent = 50}, {}, {.timestamp = {360}, .batteryLevelPercent = 49}};
  EXPECT_EQ(std::pair(calculateDrainRate(snapshots), reliableDrainRate(snapshots)),
            std::pair(Rate(10), Rate()));
}

}  // namespace
}  // namespace quenzel
