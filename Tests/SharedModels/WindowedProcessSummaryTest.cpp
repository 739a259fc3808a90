#include <algorithm>
#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "SharedModels/DetailsDataPipeline/WindowedProcessSummary.hpp"
#include "SharedModels/Snapshot/EnergySlice.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"

namespace quenzel {
namespace {

using namespace WindowedProcessSummaryBuilder;

// clang-format off
/// A snapshot at that second with one process of those watts, if any.
DrainSnapshot at(double seconds, double totalW = 10, double processW = 5) {
  return makeSnapshot(seconds, totalW, std::vector(processW == 0 ? 0 : 1, makeProcessDrain(1, "a", processW)));
}

TEST(WindowedProcessSummaryTest, CleansAndCutsTheHistory) {
  struct Row { std::vector<DrainSnapshot> sourceRaw; double windowSeconds; std::vector<std::pair<double, double>> secondsAndTotals; };
  const Row rows[] = {
      {{}, 60, {{-7, 10}}}, {{at(30), at(10), at(20)}, 60, {{10, 10}, {20, 10}, {30, 10}}},
      {{at(1), at(1.4, 20, 10)}, 60, {{1.4, 20}}},                  // equally good: the later
      {{at(-9), at(1), at(1.5, 10, 4)}, 60, {{-9, 10}, {1, 10}}},   // half a second apart: the better
      {{at(1), at(1.501, 10, 4)}, 60, {{1, 10}, {1.501, 10}}},
      {{at(1, 10, 0), at(1.25, 0, 0.05)}, 60, {{1.25, 0}}},         // 0.05 of at least 0.1, no bonus
      {{at(1, 0.1, 0.051), at(1.25, 0.1, 0.05)}, 60, {{1, 0.1}}},
      {{at(1), at(1.4, 10, 4), at(1.8, 10, 4)}, 60, {{1, 10}, {1.8, 10}}},  // 1.8 is near the dropped one only
      {{at(30), at(10), at(20)}, 10, {{20, 10}, {30, 10}}},         // the cutoff itself is inside
      {{at(10), at(20)}, 0, {{20, 10}}}, {{at(10), at(20)}, -5, {{20, 10}}}, {{at(10), at(20)}, std::nan(""), {{20, 10}}}};
  const DrainSnapshot fallback = at(-7);
  for (const Row& row : rows) {
    std::vector<std::pair<double, double>> found;
    for (const DrainSnapshot* snapshot : windowedSnapshots(row.sourceRaw, fallback, row.windowSeconds))
      found.emplace_back(std::round(snapshot->timestamp.secondsSince1970() * 1000) / 1000, snapshot->totalDischargeW);
    EXPECT_EQ(found, row.secondsAndTotals) << (&row - rows);
  }
}

TEST(WindowedProcessSummaryTest, KnowsOrderAndNamesAndAddsTrapezoids) {
  DrainSnapshot named = at(1), blank = at(1), displayOnly = at(1), plain = at(2), bare = at(1, 10, 0);
  for (DrainSnapshot* snapshot : {&named, &blank, &displayOnly}) snapshot->processes[0].displayName = "a";
  named.processes[0].canonicalName = "a";
  blank.processes[0].canonicalName = " \n";
  EXPECT_TRUE(hasStoredPresentationData({}) && hasStoredPresentationData({&named, &bare}));
  for (const DrainSnapshot* other : SnapshotList{&blank, &displayOnly, &plain}) EXPECT_FALSE(hasStoredPresentationData({&named, other}));
  EXPECT_TRUE(isAscending({}) && isAscending({&named, &bare, &plain}) && !isAscending({&plain, &named}));
  TextMap<double> energy{{"both", 1}};
  accumulateAverageEnergy({{"both", 2}, {"left", 4}, {"none", 0}}, {{"both", 6}, {"new", 8}, {"off", 0}}, 0.5, energy);
  for (const double hours : {0.0, -1.0, std::nan("")}) accumulateAverageEnergy({{"x", 2}}, {{"x", 2}}, hours, energy);
  EXPECT_EQ(energy, (TextMap<double>{{"both", 3}, {"left", 1}, {"new", 2}}));
}

TEST(WindowedProcessSummaryTest, SumsUpAWindow) {
  const std::string app = "/Applications/Foo.app/Contents/MacOS/";
  std::vector<DrainSnapshot> history{at(0), at(36), at(636, 30), at(637, -1e6)};
  for (DrainSnapshot& snapshot : history)
    snapshot.processes = {makeProcessDrain(7, app + "Helper", 2), makeProcessDrain(8, app + "Foo", 4), makeProcessDrain(9, "sleeper", 0)};
  const WindowedProcessSummary summary = summarize(history, history[0], 1e6);
  EXPECT_NEAR(summary.totalWh, 0.1 + 20 / 60.0, 1e-9) << "600 s count as a minute, and a negative mean as nothing";
  EXPECT_EQ(summary.rangeSnapshot, history.back());
  ASSERT_EQ(summary.processGroups.size(), 2U);
  const auto& [id, canonicalName, totalDrainW, totalEnergyWh, processes, iconProcess] = summary.processGroups[0];
  EXPECT_EQ(std::tie(id, canonicalName, totalDrainW), std::tuple("foo", "Foo", 6.0));
  EXPECT_NEAR(totalEnergyWh, 6.0 * (36 + 60 + 1) / 3600, 1e-9);
  EXPECT_EQ(std::tuple(processes.size(), processes[0]), std::tuple(3U, iconProcess)) << "the representative, then its members";
  EXPECT_EQ(std::tie(summary.processGroups[1].id, summary.processGroups[1].totalEnergyWh), std::tuple("sleeper", 0.0));
  const CancellationToken cancelled;
  cancelled.cancel();
  EXPECT_EQ(summarize(history, history[0], 1e6, cancelled).totalWh, 0);
  EXPECT_EQ(summarize({}, history[0], 60).processGroups.size(), 2U);
}

TEST(WindowedProcessSummaryTest, LosesNoEnergyOfAnyRow) {
  std::mt19937 random(7);
  const auto below = [&](unsigned limit) { return static_cast<int>(random() % limit); };
  for (int run = 0; run < 50; ++run) {
    std::vector<DrainSnapshot> history;
    double seconds = 0, previousW = 0, expectedWh = 0, namedWh = 0, groupedWh = 0;
    for (int i = 0; i < 20; ++i) {
      const double step = 1 + below(100);
      DrainSnapshot& snapshot = history.emplace_back(at(seconds += step, 50, 0));
      double watts = 0;
      for (int row = below(6); row > 0; --row) {
        ProcessDrain& process = snapshot.processes.emplace_back(makeProcessDrain(below(8), run % 2 == 0 ? "/bin/tool" : "/Applications/A.app/b", below(9) - 1));
        watts += std::max(process.drainW, 0.0);
        if (run % 3 == 0) process.displayName = process.canonicalName = std::string(1, "abAB"[below(4)]);
      }
      if (i > 0) expectedWh += sliceWh(sliceHours(step), previousW, watts);
      previousW = watts;
    }
    std::shuffle(history.begin(), history.end(), random);
    const WindowedProcessSummary summary = summarize(history, history[0], 1e6);
    for (const auto& [name, wh] : summary.groupedWhByName) namedWh += wh;
    for (const ProcessGroup& group : summary.processGroups) groupedWh += group.totalEnergyWh;
    EXPECT_NEAR(namedWh, expectedWh, 1e-6);
    EXPECT_NEAR(groupedWh, expectedWh, 1e-6);
  }
}
// clang-format on

}  // namespace
}  // namespace quenzel
