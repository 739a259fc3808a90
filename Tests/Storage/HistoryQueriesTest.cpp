#include <numeric>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "SharedModels/DetailsDataPipeline/DetailsReadModel.hpp"
#include "SharedModels/Snapshot/ModelledFigures.hpp"
#include "SharedModels/Snapshot/SnapshotQuality.hpp"
#include "Storage/Database.hpp"
#include "Storage/EnergyQueries.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"
#include "Storage/SnapshotInsertion.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

constexpr double step = 56.25;  ///< a 64th of an hour: energies over it are exact

PointInTime at(double seconds) { return {seconds}; }

DrainSnapshot snapshotAt(double seconds, double totalW, std::vector<ProcessDrain> processes = {}) {
  return makeSnapshot(at(seconds).secondsSince1970(), totalW, std::move(processes));
}

ProcessDrain member(std::int64_t pid, const char* name, const char* key, double drainW,
                    std::vector<std::string> sourceFlags = {}) {
  ProcessDrain process = makeNamedDrain(pid, name, drainW, std::move(sourceFlags));
  process.canonicalName = std::string(key) + " app";
  process.processGroupKey = key;
  return process;
}

class HistoryQueriesTest : public ::testing::Test {
 protected:
  /// Of each reading: seconds, watts and whether on battery ("b"), on an adapter ("a") or neither known.
  void add(const std::string& readings) {
    std::istringstream in(readings);
    double seconds = 0, watts = 0;
    for (char source = 0; in >> seconds >> watts >> source;) {
      DrainSnapshot snapshot = snapshotAt(seconds, watts);
      if (source != '-') snapshot.powerContext = {source == 'b', {}};
      store.insert(snapshot);
    }
  }
  void clear() { store.purgeSnapshots(at(1e6)); }

  testing::TemporaryDirectory folder;
  SQLiteSnapshotStore store{folder / "history.sqlite", SQLiteSnapshotStore::Mode::readWriteCreate};
};

TEST(SnapshotQuality, RanksByMeaningfulPowerThenByCoverage) {
  const double rows[][3] = {{10, 5, 1.5}, {10, 20, 2},     {0.05, 0.04, 0.04 / 0.1},
                            {10, 0, 0},   {0.1, 0.05, .5}, {0, -3, 0}};
  for (const auto& [totalW, processW, quality] : rows) EXPECT_EQ(snapshotQuality(totalW, processW), quality);
  EXPECT_EQ(hiddenWorkloadW({.hidden = {{{}, "a", 2}, {{}, "b", 1}}}), 3);
}

TEST_F(HistoryQueriesTest, IntegratesByTheTrapezoidRule) {
  // Readings; their watt-hours, those on battery, and seconds from first to last; the sampled seconds.
  const std::tuple<const char*, const char*, double> rows[] = {
      {"", "0 0 0", 0},
      {"0 10 b", "0 0 0", 0},
      {"0 10 - 10 20 -", "0.0416667 0 10", 10},
      {"0 10 - 600 20 -", "0.25 0 600", 60},
      {"0 -30 b 36 10 b 72 10 b", "0.1 0.1 72", 72},
      {"0 10 b 36 10 -", "0.1 0.1 36", 36},
      {"0 10 b 36 10 a 72 20 b", "0.25 0.15 72", 72},
      {"0 10 - 36 10 - 0 10 -", "0.1 0 36", 36}};  // equal times, no near duplicate of the newest
  const auto textOf = [](const auto& summary) {
    return fmt::format("{:.6g} {:.6g} {:.6g}", summary.totalWh, summary.batteryWh,
                       summary.trackedHours * 3600);
  };
  for (const auto& [readings, usage, sampledSeconds] : rows) {
    clear();
    add(readings);
    const DetailsWindowSummary window = store.fetchDetailsWindowSummary(at(0), at(600));
    EXPECT_EQ(textOf(window), usage) << readings;
    EXPECT_EQ(textOf(store.fetchEnergyUsageSummary(100)), usage) << readings;
    EXPECT_NEAR(window.sampleHours * 3600, sampledSeconds, 1e-9) << readings;
  }
  for (const int limit : {1, -1}) EXPECT_EQ(store.fetchEnergyUsageSummary(limit), EnergyUsageSummary{});
  EXPECT_EQ(encodeEnergyUsageSummary({1, 2, 3, 4}).dump(),
            R"({"totalWh":1.0,"batteryWh":2.0,"trackedHours":3.0,"trackerWh":4.0})");
}

TEST_F(HistoryQueriesTest, SumsEachColumnUnderItsOwnName) {
  // Of each snapshot its watts in total and the factor of those of its parts; the window leaves out both
  // ends.
  const std::pair<double, double> rows[] = {{128, 1}, {128, 1}, {128, 1}, {-256, -2}, {512, 0}, {1, 0}};
  for (double seconds = -step; const auto& [totalW, factor] : rows) {
    DrainSnapshot snapshot = snapshotAt(seconds, totalW);
    if (factor > 0) snapshot.processes = {member(1, "quenzel", "q", 256), member(2, "other", "o", 128)};
    snapshot.components = {384 * factor, 480 * factor, 576 * factor, 672 * factor, 768 * factor, 7, 7,
                           864 * factor, 960 * factor, 0.5};
    snapshot.unattributedW = 1056 * factor;
    snapshot.powerContext = {seconds == step, {}};
    store.insert(snapshot);
    seconds += step;
  }
  const DetailsPipelineOutput details = store.fetchDetailsReadModel(3 * step, 0, at(3 * step), {});
  EXPECT_EQ(encodeDetailsWindowSummary(details.summary).dump(),
            R"({"total_wh":4.0,"battery_wh":2.0,"tracker_wh":6.0,"tracked_hours":0.046875,)"
            R"("sample_hours":0.046875,"process_wh":9.0,"screen_wh":6.0,"usb_wh":7.5,"cpu_wh":9.0,)"
            R"("gpu_wh":10.5,"ane_wh":12.0,"ram_wh":13.5,"pci_wh":15.0,"unattributed_wh":16.5})");
  EXPECT_EQ(details.averageComponents, (ComponentDrain{128, 160, 192, 224, 256, 0, 0, 288, 320, 0.5}));
}

TEST_F(HistoryQueriesTest, TracksItsOwnEnergy) {
  const std::string prefix = "net.o'own", sql = EnergyQueries::usageSummarySQL(prefix);
  Database database(folder / "history.sqlite", Database::Access::readWriteCreate);
  std::vector<ProcessDrain> processes = {
      member(1, "/opt/QUENZEL/x", "a", 1), member(2, "BatteryMetricsDaemon", "a", 2),
      member(3, "other", "a", 4), member(4, "agent", "a", 8), member(5, "quenzel", "a", -16)};
  processes[3].bundleID = "NET.o'own.agent";
  for (const int index : {0, 1})
    SnapshotInsertion::writeRows(database, snapshotAt(index * step, 100, processes), prefix);
  const DetailsWindowSummary window = store.fetchDetailsWindowSummary(at(0), at(step));
  EXPECT_EQ(window.trackerWh, 11. / 64);
  EXPECT_EQ(window.processWh, 15. / 64);
  EXPECT_EQ(EnergyQueries::usageSummary(database, sql, 9).trackerWh, 11. / 64);
  EXPECT_EQ(store.fetchHistoryReadModel(9).energyUsageSummary.trackerWh, 3. / 64) << "without that prefix";
}

TEST_F(HistoryQueriesTest, ThinsAWindowToEveryNthFromTheOldest) {
  EXPECT_TRUE(store.fetchWindowSnapshots(9, 9, {}).empty());
  EXPECT_TRUE(store.fetchPreparedSnapshots(9, {}).empty());
  for (int index = 0; index < 25; ++index) add(fmt::format("{0} {0} -", index));
  const std::tuple<double, std::int64_t, std::optional<PointInTime>, std::vector<double>> rows[] = {
      {100, 10, {}, {0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24}},
      {100, 0, {}, {0}},
      {0, 9, {}, {23, 24}},
      {2, 2, at(10), {8, 9, 10}},
      {5, 9, at(-1), {}}};
  for (const auto& [windowSeconds, maxRows, anchor, expected] : rows) {
    std::vector<double> watts;
    for (const auto& snapshot : store.fetchWindowSnapshots(windowSeconds, maxRows, anchor))
      watts.push_back(snapshot.totalDischargeW);
    EXPECT_EQ(watts, expected) << windowSeconds << " s, " << maxRows << " rows";
  }
  EXPECT_EQ(store.fetchPreparedSnapshots(4, {}).size(), 5u);
}

TEST_F(HistoryQueriesTest, BuildsTheDetailsOfAWindow) {
  // Group a draws 2, 4 and nothing; b nothing, 6 and 6 W, by two processes.
  DrainSnapshot first = snapshotAt(0, 10, {member(1, "a", "a", 2)});
  DrainSnapshot second = snapshotAt(step, 20, {member(1, "a", "a", 4), member(2, "b", "b", 6)});
  DrainSnapshot third = snapshotAt(2 * step, 10, {member(2, "b", "b", 4.5), member(3, "/b.app/b", "b", 1.5)});
  first.hidden = {{HiddenDrainKind::dockerContainer, "web", 1}, {HiddenDrainKind::dockerContainer, "y", 2}};
  second.hidden = {{HiddenDrainKind::launchdService, "web", 1}, {HiddenDrainKind::dockerContainer, "x", 1}};
  third.hidden = {{HiddenDrainKind::dockerContainer, "web", 1}};
  for (DrainSnapshot* snapshot : {&first, &second, &third}) snapshot->components.screenW = 2;
  first.components.usbW = 0.5;
  first.unattributedW = 3;
  first.powerContext = {true, 80};
  third.batteryStatus.emplace().levelPercent = 79.5;  // from elsewhere, without a power context
  const DrainSnapshot early = snapshotAt(-1, 50, {member(1, "early", "early", 9)}), late = snapshotAt(114, 5);
  for (const DrainSnapshot& snapshot : {second, early, first, third, late})  // the clock jumps
    store.insert(snapshot);

  const DetailsPipelineOutput details = store.fetchDetailsReadModel(2 * step, 1, at(2 * step), late);
  auto json = encodeDetailsPipelineOutput(details);
  EXPECT_EQ(json["latestSnapshot"], encodeDrainSnapshot(third));
  for (const char* elsewhere : {"latestSnapshot", "summary", "averageComponents"}) json.erase(elsewhere);
  json["processes"][0]["representative"] = json["processes"][0]["representative"]["name"];
  EXPECT_EQ(
      json.dump(),
      R"({"windowStart":0.0,"anchor":112.5,"snapshotCount":3,"modelled":false,)"
      R"("batteryDrainRatePctPerHour":16.0,"processes":[{"groupKey":"b","canonicalName":"b app","pid":3,)"
      R"("representative":"/b.app/b","energyWh":0.140625,"averageW":4.5,"latestW":6.0},)"
      R"({"groupKey":"a","canonicalName":"a app","pid":-258967366,"energyWh":0.078125,"averageW":2.5,)"
      R"("latestW":0.0}],"hidden":[)"
      R"({"kind":"docker_container","identifier":"web","energyWh":0.015625,"averageW":0.5,"latestW":1.0},)"
      R"({"kind":"docker_container","identifier":"x","energyWh":0.015625,"averageW":0.5,"latestW":0.0},)"
      R"({"kind":"docker_container","identifier":"y","energyWh":0.015625,"averageW":0.5,"latestW":0.0},)"
      R"({"kind":"launchd_service","identifier":"web","energyWh":0.015625,"averageW":0.5,"latestW":0.0}],)"
      R"("appSeries":[{"groupKey":"b","canonicalName":"b app","energyWh":0.140625,"watts":[)"
      R"({"timestamp":0.0,"value":0.0},{"timestamp":56.25,"value":6.0},{"timestamp":112.5,"value":6.0}]}],)"
      R"("totalPowerW":[{"timestamp":0.0,"value":10.0},{"timestamp":56.25,"value":20.0},)"
      R"({"timestamp":112.5,"value":10.0}],)"
      R"("batteryLevelPercent":[{"timestamp":0.0,"value":80.0},{"timestamp":112.5,"value":79.5}]})");

  EXPECT_EQ(store.fetchPreparedSnapshots(2 * step, at(2 * step)),
            (std::vector<PreparedSnapshot>{{at(0), 10, 2, 2.5, 3, true, {}},
                                           {at(step), 20, 10, 2, 0, false, {}},
                                           {at(2 * step), 10, 6, 2, 0, false, 79.5}}));
  const DetailsPipelineOutput between = store.fetchDetailsReadModel(10, 5, at(20), late);
  EXPECT_EQ(between.snapshotCount, 0);
  EXPECT_EQ(between.latestSnapshot, late);
  const GroupedProcessData alone = store.fetchDetailsReadModel(1, 5, at(step), late).processes.at(0);
  EXPECT_EQ(std::pair(alone.averageW, alone.latestW), std::pair(0.0, 6.0)) << "of one snapshot";
}

TEST_F(HistoryQueriesTest, OnlyASliceIsFloored) {
  // The watts of the rows of group "g", a snapshot each, its 64ths of watt-hours and its latest watts.
  const std::tuple<std::vector<std::vector<double>>, double, double> rows[] = {{{{-2, 5}, {-2, 5}}, 3, 3},
                                                                               {{{-9}, {3}, {5}}, 4, 5},
                                                                               {{{}, {-4}, {}, {2}}, 1, 2},
                                                                               {{{6, -2}, {}, {4}}, 4, 4},
                                                                               {{{6}, {2}, {-3}}, 4, -3}};
  for (const auto& [snapshots, energy, latestW] : rows) {
    SCOPED_TRACE(::testing::PrintToString(snapshots));
    clear();
    for (double seconds = 0; const std::vector<double>& watts : snapshots) {
      DrainSnapshot snapshot = snapshotAt(seconds, 10, {member(99, "o", "o", 1)});
      for (const double each : watts)
        snapshot.processes.push_back(member(std::ssize(snapshot.processes), "p", "g", each));
      // As one row: two of one workload can't be stored.
      if (!watts.empty()) snapshot.hidden = {{{}, "h", std::accumulate(watts.begin(), watts.end(), 0.0)}};
      store.insert(snapshot);
      seconds += step;
    }
    const DetailsPipelineOutput details = store.fetchDetailsReadModel(3600, 9, {}, {});
    const std::size_t g = details.processes.at(0).groupKey == "g" ? 0 : 1;
    const auto& [process, hidden] = std::tie(details.processes[g], details.hidden.at(0));
    EXPECT_EQ(std::pair(process.energyWh * 64, process.latestW), std::pair(energy, latestW));
    EXPECT_EQ(std::pair(hidden.energyWh * 64, hidden.latestW), std::pair(energy, latestW));
    EXPECT_EQ(details.appSeries.at(g).energyWh, process.energyWh);
  }
}

TEST_F(HistoryQueriesTest, SaysThatFiguresAreModelled) {
  const auto isModelled = [&] { return store.fetchDetailsReadModel(60, 5, {}, {}).modelled; };
  add("0 1 -");
  EXPECT_FALSE(isModelled());
  store.insert(snapshotAt(10, 1, {member(1, "a", "a", 1, {std::string(modelledSourceFlag)})}));
  EXPECT_TRUE(isModelled());
  DrainSnapshot snapshot = snapshotAt(100, 1);
  snapshot.batteryStatus.emplace().serialNumber = modelledSerialNumber;
  store.insert(snapshot);
  EXPECT_TRUE(isModelled());
}

TEST_F(HistoryQueriesTest, FallsBackToTheLiveSnapshot) {
  DrainSnapshot fallback = snapshotAt(90, 3);
  fallback.components = {.screenW = -1, .cpuW = 2, .confidence = 0.5};
  const DetailsPipelineOutput details = store.fetchDetailsReadModel(60, 5, {}, fallback);
  EXPECT_EQ(details.anchor, at(90));
  EXPECT_EQ(details.windowStart, at(30));
  EXPECT_EQ(details.latestSnapshot, fallback);
  EXPECT_EQ(details.averageComponents, (ComponentDrain{.cpuW = 2, .confidence = 0.5}));
}

TEST(GroupedRepresentative, IsTheSameAtEveryLook) {
  DrainSnapshot latest = snapshotAt(0, 9,
                                    {member(9, "tie", "g", 1), member(4, "tie", "g", 1),
                                     member(2, "weak", "g", 0.5), member(1, "x", "other", 9)});
  EXPECT_EQ(groupedRepresentative(latest, "g")->pid, 4) << "most power, then the lowest PID";
  latest.processes.push_back(member(8, "/bin/g", "g", -1));
  EXPECT_EQ(groupedRepresentative(latest, "g")->pid, 8) << "a path scores more than a name";
  EXPECT_EQ(groupedRepresentative(latest, "none"), std::nullopt);
}

}  // namespace
}  // namespace quenzel
