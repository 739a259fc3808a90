#include <algorithm>
#include <numeric>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "SharedModels/DetailsDataPipeline/DetailsReadModel.hpp"
#include "SharedModels/Presentation/SyntheticPID.hpp"
#include "SharedModels/Snapshot/SnapshotQuality.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

constexpr double base = 1'700'000'000;

PointInTime at(double seconds) { return PointInTime::fromSecondsSince1970(base + seconds); }

ProcessDrain member(std::int64_t pid, const char* name, const char* key, double drainW) {
  ProcessDrain process = makeProcessDrain(pid, name, drainW, {});
  process.displayName = name;
  process.canonicalName = std::string(key) + " app";
  process.processGroupKey = key;
  return process;
}

class HistoryQueriesTest : public ::testing::Test {
 protected:
  DrainSnapshot add(double seconds, double totalW, std::optional<bool> onBattery = {},
                    std::vector<ProcessDrain> processes = {}) {
    DrainSnapshot snapshot = makeSnapshot(base + seconds, totalW, std::move(processes));
    if (onBattery) snapshot.powerContext = {*onBattery, {}};
    store.insert(snapshot);
    return snapshot;
  }

  testing::TemporaryDirectory folder;
  SQLiteSnapshotStore store{folder / "history.sqlite", SQLiteSnapshotStore::Mode::readWriteCreate};
};

TEST(SnapshotQuality, RanksByMeaningfulPowerThenByCoverage) {
  EXPECT_EQ(snapshotQuality(10, 5), 1.5);
  EXPECT_EQ(snapshotQuality(10, 20), 2);
  EXPECT_DOUBLE_EQ(snapshotQuality(0.05, 0.04), 0.4);
  EXPECT_EQ(snapshotQuality(10, 0), 0);
  EXPECT_EQ(snapshotQuality(0.1, 0.05), 0.5) << "0.05 W is not more than 0.05 W";
  EXPECT_EQ(snapshotQuality(0, -3), 0);
}

TEST_F(HistoryQueriesTest, IntegratesByTheTrapezoidRule) {
  struct Reading {
    double seconds, watts;
    std::optional<bool> onBattery;
  };
  struct Row {
    const char* what;
    std::vector<Reading> readings;
    double totalWh, batteryWh, trackedSeconds, sampledSeconds;
  };
  const Row rows[] = {
      {"nothing", {}, 0, 0, 0, 0},
      {"one", {{0, 10, true}}, 0, 0, 0, 0},
      {"10 s", {{0, 10, {}}, {10, 20, {}}}, 10 / 3600. * 15, 0, 10, 10},
      {"a gap counts a minute", {{0, 10, {}}, {600, 20, {}}}, 60 / 3600. * 15, 0, 600, 60},
      {"below zero", {{0, -30, true}, {36, 10, true}, {72, 10, true}}, 0.1, 0.1, 72, 72},
      {"later unknown", {{0, 10, true}, {36, 10, {}}}, 0.1, 0.1, 36, 36},
      {"later decides", {{0, 10, true}, {36, 10, false}, {72, 20, true}}, 0.25, 0.15, 72, 72},
      {"clock set back", {{36, 10, {}}, {0, 10, {}}}, 0.1, 0, 36, 36},
  };
  for (const Row& row : rows) {
    store.purgeSnapshots(at(1e6));
    for (const Reading& reading : row.readings) add(reading.seconds, reading.watts, reading.onBattery);
    const EnergyUsageSummary usage = store.fetchEnergyUsageSummary(100);
    const DetailsWindowSummary window = store.fetchDetailsWindowSummary(at(0), at(600));
    for (const auto& [totalWh, batteryWh, hours] :
         {std::tuple{usage.totalWh, usage.batteryWh, usage.trackedHours},
          std::tuple{window.totalWh, window.batteryWh, window.trackedHours}}) {
      EXPECT_NEAR(totalWh, row.totalWh, 1e-9) << row.what;
      EXPECT_NEAR(batteryWh, row.batteryWh, 1e-9) << row.what;
      EXPECT_NEAR(hours, row.trackedSeconds / 3600, 1e-9) << row.what;
    }
    EXPECT_NEAR(window.sampleHours, row.sampledSeconds / 3600, 1e-9) << row.what;
  }
}

TEST_F(HistoryQueriesTest, EqualTimesAddNoEnergy) {
  for (const double seconds : {0., 36., 0.})
    add(seconds, 10);  // the third is no near duplicate of the newest
  EXPECT_EQ(store.fetchLatest(9).size(), 3u);
  EXPECT_NEAR(store.fetchEnergyUsageSummary(9).totalWh, 0.1, 1e-9);
  EXPECT_NEAR(store.fetchEnergyUsageSummary(9).trackedHours, 0.01, 1e-9);
  EXPECT_EQ(store.fetchEnergyUsageSummary(1), EnergyUsageSummary{});
}

TEST_F(HistoryQueriesTest, SumsEachColumnUnderItsOwnName) {
  for (const double seconds : {0., 36.}) {
    DrainSnapshot snapshot = makeSnapshot(base + seconds, 100, {member(1, "quenzel", "q", 200)});
    snapshot.processes.push_back(member(2, "other", "o", 100));
    snapshot.components = {
        .screenW = 400, .usbW = 500, .cpuW = 600, .gpuW = 700, .aneW = 800, .ramW = 900, .pciW = 1000};
    snapshot.unattributedW = 1100;
    snapshot.powerContext = {seconds == 0, {}};
    store.insert(snapshot);
  }
  store.insert(makeSnapshot(base + 672, 100));
  const std::vector<std::pair<std::string, double>> expected = {{"total_wh", 2.67},
                                                                {"battery_wh", 0},
                                                                {"tracker_wh", 3.67},
                                                                {"tracked_hours", 672 / 3600.},
                                                                {"sample_hours", 96 / 3600.},
                                                                {"process_wh", 5.5},
                                                                {"screen_wh", 7.33},
                                                                {"usb_wh", 9.17},
                                                                {"cpu_wh", 11},
                                                                {"gpu_wh", 12.83},
                                                                {"ane_wh", 14.67},
                                                                {"ram_wh", 16.5},
                                                                {"pci_wh", 18.33},
                                                                {"unattributed_wh", 20.17}};
  const auto json = encodeDetailsWindowSummary(store.fetchDetailsWindowSummary(at(0), at(672)));
  ASSERT_EQ(json.size(), expected.size());
  for (const auto& [name, value] : expected) EXPECT_NEAR(json.at(name).get<double>(), value, 0.005) << name;
}

TEST_F(HistoryQueriesTest, TracksItsOwnEnergy) {
  for (const double seconds : {0., 36.}) {
    add(seconds, 10, {},
        {member(1, "Quenzel", "q", 2), member(2, "quenzel-helper", "q", -4), member(3, "other", "o", 5)});
  }
  EXPECT_NEAR(store.fetchEnergyUsageSummary(9).trackerWh, 0.02, 1e-9);
  const DetailsWindowSummary window = store.fetchDetailsWindowSummary(at(0), at(36));
  EXPECT_NEAR(window.trackerWh, 0.02, 1e-9);
  EXPECT_NEAR(window.processWh, 0.07, 1e-9);
  EXPECT_NEAR(store.fetchHistoryReadModel(9).energyUsageSummary.trackerWh, 0.02, 1e-9);
}

TEST_F(HistoryQueriesTest, ThinsAWindowToEveryNthFromTheOldest) {
  for (int index = 0; index < 25; ++index) add(index, index);
  struct Row {
    double windowSeconds;
    std::int64_t maxRows;
    std::optional<PointInTime> anchor;
    std::vector<double> watts;
  };
  const Row rows[] = {
      {100, 10, {}, {0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24}},
      {100, 0, {}, {0}},
      {4, 100, {}, {20, 21, 22, 23, 24}},
      {0, 9, {}, {23, 24}},
      {2, 2, at(10), {8, 9, 10}},
      {2, 9, at(10.5), {9, 10}},
      {5, 9, at(-1), {}},
  };
  for (const Row& row : rows) {
    std::vector<double> watts;
    for (const DrainSnapshot& snapshot :
         store.fetchWindowSnapshots(row.windowSeconds, row.maxRows, row.anchor))
      watts.push_back(snapshot.totalDischargeW);
    EXPECT_EQ(watts, row.watts) << row.windowSeconds << " s, " << row.maxRows << " rows";
  }
  EXPECT_EQ(store.fetchPreparedSnapshots(4, {}).size(), 5u);
  EXPECT_EQ(store.fetchLatest(3).front().totalDischargeW, 22);
}

TEST_F(HistoryQueriesTest, BuildsTheDetailsOfAWindow) {
  const DrainSnapshot fallback = makeSnapshot(base, 3);
  add(-100, 50, true, {member(1, "early", "before the window", 9)});
  // Group a draws 2, 4 and nothing; b nothing, 6 and 6 W, by two processes; each slice is 36 s.
  DrainSnapshot first = makeSnapshot(base, 10, {member(1, "a", "a", 2)});
  DrainSnapshot second = makeSnapshot(base + 36, 20, {member(1, "a", "a", 4), member(2, "b", "b", 6)});
  DrainSnapshot third =
      makeSnapshot(base + 72, 10, {member(2, "b", "b", 4.5), member(3, "/b.app/b", "b", 1.5)});
  first.hidden = third.hidden = {{HiddenDrainKind::dockerContainer, "web", 1}};
  for (DrainSnapshot* snapshot : {&first, &second, &third}) snapshot->components.screenW = 2;
  first.powerContext = {true, 80};
  third.powerContext = {true, 79.5};
  for (const DrainSnapshot* snapshot : {&second, &first, &third}) store.insert(*snapshot);  // the clock jumps

  const DetailsPipelineOutput details = store.fetchDetailsReadModel(100, 1, at(90), fallback);
  EXPECT_EQ(details.windowStart, at(-10));
  EXPECT_EQ(details.snapshotCount, 3);
  EXPECT_EQ(details.latestSnapshot.totalDischargeW, 10);
  EXPECT_EQ(details.totalPowerW, (std::vector<ChartPoint>{{at(0), 10}, {at(36), 20}, {at(72), 10}}));
  EXPECT_EQ(details.batteryLevelPercent, (std::vector<ChartPoint>{{at(0), 80}, {at(72), 79.5}}));
  EXPECT_NEAR(details.batteryDrainRatePctPerHour.value(), 25, 1e-9);
  EXPECT_NEAR(details.averageComponents.screenW, 2, 1e-9);

  // a: 36 s from 2 to 4 and 36 s from 4 to 0 W; b: from 0 to 6, then 6 W.
  ASSERT_EQ(details.processes.size(), 2u);
  const auto& [b, a] = std::tie(details.processes[0], details.processes[1]);
  EXPECT_EQ(b.groupKey, "b");
  EXPECT_NEAR(b.energyWh, 0.09, 1e-9);
  EXPECT_EQ(b.latestW, 6);
  EXPECT_EQ(b.pid, 3) << "the row inside an application bundle stands for it";
  EXPECT_NEAR(a.energyWh, 0.05, 1e-9);
  EXPECT_EQ(a.canonicalName, "a app");
  EXPECT_EQ(a.pid, ProcessAttributionPresentationService::stableSyntheticPID("a"));
  EXPECT_EQ(a.latestW, 0);
  EXPECT_EQ(b.canonicalName, "b app");
  EXPECT_NEAR(a.energyWh + b.energyWh, details.summary.processWh, 1e-9) << "nothing is lost";
  ASSERT_EQ(details.hidden.size(), 1u);
  EXPECT_NEAR(details.hidden[0].energyWh, 0.01, 1e-9);
  EXPECT_EQ(details.hidden[0].latestW, 1);
  ASSERT_EQ(details.appSeries.size(), 1u);
  EXPECT_EQ(details.appSeries[0].watts, (std::vector<ChartPoint>{{at(0), 0}, {at(36), 6}, {at(72), 6}}));

  {  // The order of the rows in their table is nobody's promise.
    Database database(folder / "history.sqlite", Database::Access::readWriteCreate);
    database.execute(
        "CREATE TABLE rows AS SELECT * FROM process_samples ORDER BY snapshot_id DESC; DELETE FROM "
        "process_samples; "
        "INSERT INTO process_samples SELECT * FROM rows; DROP TABLE rows;");
  }
  EXPECT_EQ(store.fetchDetailsReadModel(100, 1, at(90), fallback).processes, details.processes);

  const DetailsPipelineOutput between = store.fetchDetailsReadModel(10, 5, at(20), fallback);
  EXPECT_EQ(between.snapshotCount, 0);
  EXPECT_EQ(between.latestSnapshot, fallback);
}

TEST_F(HistoryQueriesTest, OnlyASliceIsFloored) {
  struct Row {
    const char* what;
    std::vector<std::vector<double>> watts;  ///< of the rows of group "g", a snapshot each, 36 s apart
    double energyWh, latestW;
  };
  const Row rows[] = {
      {"two rows of one snapshot", {{-2, 5}, {-2, 5}}, 0.03, 3},
      {"a negative average counts 0", {{-9}, {3}, {5}}, 0.04, 5},
      {"one end below 0", {{-2}, {6}}, 0.02, 6},
      {"absent at one end", {{}, {-4}, {}, {2}}, 0.01, 2},
      {"absent between", {{6, -2}, {}, {4}}, 0.04, 4},
      {"negative at last", {{6}, {2}, {-3}}, 0.04, -3},
  };
  for (const Row& row : rows) {
    store.purgeSnapshots(at(1e6));
    for (std::size_t index = 0; index < row.watts.size(); ++index) {
      DrainSnapshot snapshot = makeSnapshot(base + 36. * static_cast<double>(index), 10);
      for (const double watts : row.watts[index])
        snapshot.processes.push_back(
            member(static_cast<std::int64_t>(snapshot.processes.size()), "p", "g", watts));
      snapshot.processes.push_back(member(99, "other", "other", 1));
      // As one row: two of one workload can't be stored.
      const double sum = std::accumulate(row.watts[index].begin(), row.watts[index].end(), 0.0);
      if (!row.watts[index].empty()) snapshot.hidden = {{HiddenDrainKind::dockerContainer, "h", sum}};
      store.insert(snapshot);
    }
    const DetailsPipelineOutput details = store.fetchDetailsReadModel(3600, 9, {}, {});
    ASSERT_EQ(details.processes.size(), 2u) << row.what;
    const auto isG = [](const auto& group) { return group.groupKey == "g"; };
    const auto group = std::find_if(details.processes.begin(), details.processes.end(), isG);
    EXPECT_NEAR(group->energyWh, row.energyWh, 1e-9) << row.what;
    EXPECT_EQ(group->latestW, row.latestW) << row.what;
    const auto series = std::find_if(details.appSeries.begin(), details.appSeries.end(), isG);
    EXPECT_NEAR(series->energyWh, row.energyWh, 1e-9) << row.what;
    EXPECT_NEAR(details.hidden.at(0).energyWh, row.energyWh, 1e-9) << row.what;
    EXPECT_EQ(details.hidden[0].latestW, row.latestW) << row.what;
  }
}

TEST_F(HistoryQueriesTest, FallsBackToTheLiveSnapshot) {
  DrainSnapshot fallback = makeSnapshot(base, 3);
  fallback.components = {.screenW = -1, .cpuW = 2, .confidence = 0.5};
  const DetailsPipelineOutput details = store.fetchDetailsReadModel(60, 5, {}, fallback);
  EXPECT_EQ(details.anchor, at(0));
  EXPECT_EQ(details.latestSnapshot, fallback);
  EXPECT_EQ(details.averageComponents, (ComponentDrain{.cpuW = 2, .confidence = 0.5}));
  EXPECT_TRUE(details.processes.empty());
}

TEST(GroupedRepresentative, IsTheSameAtEveryLook) {
  DrainSnapshot latest = makeSnapshot(base, 9,
                                      {member(9, "tie", "g", 1), member(4, "tie", "g", 1),
                                       member(2, "weak", "g", 0.5), member(1, "x", "other", 9)});
  EXPECT_EQ(groupedRepresentative(latest, "g")->pid, 4) << "most power, then the lowest number";
  latest.processes.push_back(member(8, "/bin/g", "g", -1));
  EXPECT_EQ(groupedRepresentative(latest, "g")->pid, 8) << "a path scores more than a name";
  EXPECT_EQ(groupedRepresentative(latest, "none"), std::nullopt);
}

TEST(BatteryDrainRate, IsTheSlopeOfTheLastQuarterOfAnHour) {
  struct Row {
    std::vector<ChartPoint> levels;
    std::optional<double> rate;
  };
  const Row rows[] = {
      {{}, {}},
      {{{at(0), 80}}, {}},
      {{{at(0), 80}, {at(600), 79}}, 6},
      {{{at(0), 80}, {at(20), 79}}, {}},
      {{{at(0), 80}, {at(36), 79}}, {}},
      {{{at(-1), 90}, {at(0), 80}, {at(900), 82}}, -8},
      {{{at(0), 80}, {at(1200), 79}}, {}},
  };
  for (const Row& row : rows) {
    const auto rate = calculateBatteryDrainRate(row.levels);
    ASSERT_EQ(rate.has_value(), row.rate.has_value()) << row.levels.size();
    EXPECT_NEAR(rate.value_or(0), row.rate.value_or(0), 1e-9);
  }
}

}  // namespace
}  // namespace quenzel
