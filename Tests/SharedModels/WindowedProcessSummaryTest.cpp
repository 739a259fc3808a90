#include <cmath>

#include <gtest/gtest.h>

#include "SharedModels/DetailsDataPipeline/WindowedProcessSummary.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"

namespace quenzel {
namespace {

using namespace WindowedProcessSummaryBuilder;

/// A snapshot at that second with one process of those watts, if any.
DrainSnapshot at(double seconds, double totalW = 10, double processW = 5) {
  return makeSnapshot(seconds, totalW,
                      std::vector(processW == 0 ? 0 : 1, makeProcessDrain(1, "a", processW)));
}

TEST(WindowedProcessSummaryTest, CleansAndCutsTheHistory) {
  using History = std::vector<DrainSnapshot>;
  const std::tuple<const char*, History, double, History> rows[] = {
      {"empty", {}, 60, {at(-7)}},
      {"unsorted", {at(30), at(10), at(20), at(20, 8)}, 60, {at(10), at(20, 8), at(30)}},
      {"equally good", {at(1), at(1.25, 20, 10)}, 60, {at(1.25, 20, 10)}},
      {"half a second apart", {at(-9), at(1), at(1.5, 10, 4)}, 60, {at(-9), at(1)}},
      {"further apart", {at(1), at(1.53125, 10, 4)}, 60, {at(1), at(1.53125, 10, 4)}},
      {"0.05 of at least 0.1, no bonus", {at(1, 10, 0), at(1.25, 0, 0.05)}, 60, {at(1.25, 0, 0.05)}},
      {"a bonus", {at(1, 0.1, 0.051), at(1.25, 0.1, 0.05)}, 60, {at(1, 0.1, 0.051)}},
      {"near a dropped one only", {at(1), at(1.25, 10, 4), at(1.75, 10, 4)}, 60, {at(1), at(1.75, 10, 4)}},
      {"cutoff", {at(30), at(10), at(20)}, 10, {at(20), at(30)}},
      {"no window", {at(10), at(20)}, 0, {at(20)}},
      {"not a number", {at(10), at(20)}, std::nan(""), {at(20)}}};
  for (const auto& [what, sourceRaw, windowSeconds, windowed] : rows)
    EXPECT_EQ(windowedSnapshots(sourceRaw, at(-7), windowSeconds), windowed) << what;
}

TEST(WindowedProcessSummaryTest, KnowsOrderAndNamesAndAddsTrapezoids) {
  DrainSnapshot named = at(1), blank = at(1), displayOnly = at(1), plain = at(2), bare = at(1, 10, 0);
  for (DrainSnapshot* snapshot : {&named, &blank, &displayOnly}) snapshot->processes[0].displayName = "a";
  named.processes[0].canonicalName = "a";
  blank.processes[0].canonicalName = " \n";
  const auto list = [](auto... snapshots) { return std::vector<DrainSnapshot>{snapshots...}; };
  EXPECT_TRUE(hasStoredPresentationData({}) && hasStoredPresentationData(list(named, bare)));
  for (const DrainSnapshot& other : {blank, displayOnly, plain})
    EXPECT_FALSE(hasStoredPresentationData(list(named, other)));
  EXPECT_TRUE(isAscending({}) && isAscending(list(named, bare, plain)) && !isAscending(list(plain, named)));
  TextMap<double> energy{{"both", 1}};
  accumulateAverageEnergy({{"both", 2}, {"left", 4}, {"none", 0}}, {{"both", 6}, {"new", 8}, {"off", 0}}, 0.5,
                          energy);
  for (const double hours : {0.0, -1.0, std::nan("")})
    accumulateAverageEnergy({{"x", 2}}, {{"x", 2}}, hours, energy);
  EXPECT_EQ(energy, (TextMap<double>{{"both", 3}, {"left", 1}, {"new", 2}}));
}

TEST(WindowedProcessSummaryTest, SumsUpAWindow) {
  const std::string app = "/Applications/Foo.app/Contents/MacOS/";
  std::vector<DrainSnapshot> history{at(-3600, 10), at(0), at(36), at(636, 30), at(637, -1e6)};
  for (DrainSnapshot& snapshot : std::span(history).subspan(1))
    snapshot.processes = {makeProcessDrain(7, app + "Helper", 2), makeProcessDrain(8, app + "Foo", 4),
                          makeProcessDrain(9, "sleeper", 0)};
  const WindowedProcessSummary summary = summarize(history, history[0], 1e6);
  EXPECT_NEAR(summary.totalWh, 0.1 + (10 + 20) / 60.0, 1e-9)
      << "a gap counts as a minute, and a negative mean as nothing";
  EXPECT_EQ(summary.rangeSnapshot, history.back());
  ASSERT_EQ(summary.processGroups.size(), 2U);
  const auto& [id, canonicalName, totalDrainW, totalEnergyWh, processes, iconProcess] =
      summary.processGroups[0];
  EXPECT_EQ(std::tie(id, canonicalName, totalDrainW), std::tuple("foo", "Foo", 6.0));
  EXPECT_NEAR(totalEnergyWh, 6.0 * (30 + 36 + 60 + 1) / 3600, 1e-9);
  ASSERT_EQ(processes.size(), 3U) << "the representative, then its members";
  EXPECT_EQ(processes[0], iconProcess);
  EXPECT_NEAR(summary.groupedWhByName.at("a"), 5.0 * 30 / 3600, 1e-9) << "it has ended: energy, but no group";
  EXPECT_EQ(std::tie(summary.processGroups[1].id, summary.processGroups[1].totalEnergyWh),
            std::tuple("sleeper", 0.0));
  const CancellationToken cancelled;
  cancelled.cancel();
  EXPECT_EQ(summarize(history, history[0], 1e6, cancelled).totalWh, 0);
  EXPECT_EQ(summarize({}, history[1], 60).processGroups.size(), 2U);
}

}  // namespace
}  // namespace quenzel
