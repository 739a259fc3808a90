#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Storage/SQLiteSnapshotStore.hpp"
#include "Storage/SQLiteSnapshotStoreLocation.hpp"
#include "Storage/SnapshotSchema.hpp"
#include "Storage/SnapshotStoreError.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using enum SnapshotInsertOutcome;
using Mode = SQLiteSnapshotStore::Mode;
using ::testing::ElementsAre;
using testing::modeOf;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

ProcessDrain shownProcess(std::int64_t pid, std::string name, double drainW) {
  ProcessDrain process = makeProcessDrain(pid, name, drainW, {"powermetrics"});
  process.displayName = process.canonicalName = name;
  process.processGroupKey = "name:" + name;
  return process;
}

/// A snapshot in which every stored field has a value of its own.
DrainSnapshot fullSnapshot() {
  const auto process = [](std::int64_t pid, std::optional<std::int64_t> parent, const char* name,
                          double drainW, std::vector<std::string> flags) {
    ProcessDrain row = shownProcess(pid, name, drainW);
    row.parentPID = parent;
    row.energyShare = drainW / 8;
    row.sourceFlags = std::move(flags);
    return row;
  };
  DrainSnapshot snapshot = makeSnapshot(1'700'000'000.25, 21.5);
  snapshot.processes = {process(7, 3, "/A/B.app/x", 4.5, {"a", "b"}), process(-9, {}, "of one PID", 2, {"c"}),
                        process(-9, {}, "another", 1.25, {"d"}), process(-10, {}, "equal", 1.25, {})};
  snapshot.processes[0].bundleID = "com.example.b";
  snapshot.processes[0].displayName = "B";
  snapshot.processes[0].canonicalName = "Bee";
  snapshot.hidden = {{HiddenDrainKind::dockerContainer, "web", 2},
                     {HiddenDrainKind::launchdService, "s", 1},
                     {HiddenDrainKind::dockerContainer, "equal", 1}};
  snapshot.components = {1.5, 0.5, 6, 3, 2, 0, 0, 0.75, 0.125, 0.9};
  snapshot.unattributedW = 10.75;
  snapshot.telemetry = {true, 12, false, true, false, true, false};
  snapshot.powerContext = {true, 64.5};
  snapshot.batteryStatus = {64.5, 40.25, false, true, 120,  21.5, 300,   12100, -1700, 3050, 5103,
                            4800, 3100,  4900,  1000, "SN", "bq", false, true,  96,    "96W"};
  return snapshot;
}

std::vector<std::string> column(Database& database, const char* sql) {
  std::vector<std::string> values;
  Statement rows = database.prepared(sql);
  while (rows.next()) values.push_back(rows.column<std::string>(0));
  return values;
}

class SnapshotStoreTest : public ::testing::Test {
 protected:
  SQLiteSnapshotStore open() { return {path, Mode::readWriteCreate}; }
  std::vector<std::string> query(const char* sql) {
    Database database(path, Database::Access::readWriteCreate);
    return column(database, sql);
  }

  TemporaryDirectory folder;
  std::string path = folder / "new/er/history.sqlite";
};

TEST_F(SnapshotStoreTest, MakesFolderFileAndTablesForEverybody) {
  const mode_t before = ::umask(077);
  open().insert(fullSnapshot());
  ::umask(before);
  EXPECT_EQ(modeOf(folder / "new"), 0777u);
  EXPECT_EQ(modeOf(folder / "new/er"), 0777u);
  EXPECT_EQ(modeOf(path), 0666u);
  // Of each table its columns (the type's initial; "!": not null; "=": default; "#": place in the primary
  // key) and foreign keys; of each index its columns.
  const char* const describe =
      "SELECT m.name || ':' || COALESCE((SELECT group_concat(' ' || name || ' ' || substr(type, 1, 1) || "
      "iif(\"notnull\", '!', '') || COALESCE('=' || dflt_value, '') || iif(pk, '#' || pk, '')) "
      "FROM pragma_table_info(m.name)), '') || COALESCE((SELECT group_concat('; ' || \"from\" || '>' || "
      "\"table\" || '.' || \"to\" || ' ' || on_delete, '') FROM pragma_foreign_key_list(m.name)), '') || "
      "COALESCE((SELECT group_concat(' ' || name || iif(\"desc\", ' DESC', '')) FROM "
      "pragma_index_xinfo(m.name) WHERE key = 1), '') || iif(sql LIKE '%AUTOINCREMENT%', ' AUTO', '') "
      "FROM sqlite_master m WHERE sql NOT NULL AND name NOT LIKE 'sqlite%' ORDER BY name;";
  EXPECT_THAT(
      query(describe),
      ElementsAre(
          "battery_status_samples: snapshot_id I#1, level_percent R!, remaining_wh R, is_charging I!, "
          "external_power_connected I!, system_time_remaining_minutes I, discharge_watts R, cycle_count I, "
          "voltage_mv I, amperage_ma I, temperature_centi_c I, design_capacity_mah I, max_capacity_mah I, "
          "current_capacity_mah I, nominal_charge_capacity_mah I, design_cycle_count I, serial_number T, "
          "device_name T, fully_charged I, is_ac_powered I, adapter_watts I, adapter_name T; "
          "snapshot_id>snapshots.id CASCADE",
          "estimate_tracking: id I#1, estimate_timestamp R!, horizon_seconds I!, estimate_source T!, "
          "on_battery I!, start_battery_percent R!, estimated_power_w R!, estimated_drain_rate_pct_hr R, "
          "estimated_time_left_min I, evaluation_status T!='pending', evaluated_at R, "
          "sample_duration_seconds R, actual_battery_percent R, actual_avg_power_w R, "
          "actual_drain_rate_pct_hr R, actual_time_left_min R, power_error_w R, drain_rate_error_pct_hr R, "
          "time_left_error_min R AUTO",
          "hidden_drains: snapshot_id I!#1, kind T!#2, identifier T!#3, drain_w R!; "
          "snapshot_id>snapshots.id CASCADE",
          "idx_estimate_tracking_estimate_ts: estimate_timestamp DESC",
          "idx_estimate_tracking_status_ts: evaluation_status, estimate_timestamp DESC",
          "idx_process_samples_canonical_name: canonical_name",
          "idx_process_samples_display_name: display_name",
          "idx_process_samples_group_key_snapshot: process_group_key, snapshot_id",
          "idx_process_samples_snapshot: snapshot_id",
          "idx_process_samples_snapshot_group_key: snapshot_id, process_group_key",
          "idx_snapshots_timestamp: timestamp DESC",
          "process_samples: snapshot_id I!#1, pid I!#2, parent_pid I, process_name T!#3, bundle_id T, "
          "display_name T!, canonical_name T!, process_group_key T!, drain_w R!, energy_share R!; "
          "snapshot_id>snapshots.id CASCADE",
          "process_source_flags: snapshot_id I!#1, pid I!#2, process_name T!#3, source_flag T!#4; "
          "snapshot_id>process_samples.snapshot_id CASCADE; pid>process_samples.pid CASCADE; "
          "process_name>process_samples.process_name CASCADE",
          "schema_metadata: key T#1, value T!",
          "snapshots: id I#1, timestamp R!, total_watts R!, process_total_w R!, tracker_total_w R!, "
          "on_battery_power I, battery_level_percent R, pm_command_ok I, pm_parsed_process_count I, "
          "pm_has_package_power I, pm_has_system_power I, used_estimated_total_power I, "
          "screen_model_available I, usb_model_available I, components_screen_w R!, components_usb_w R!, "
          "components_cpu_w R!=0, components_gpu_w R!=0, components_ane_w R!=0, components_ram_w R!=0, "
          "components_pci_w R!=0, components_confidence R, unattributed_w R! AUTO"));
  EXPECT_THAT(query("SELECT key || value FROM schema_metadata;"), ElementsAre("snapshot_schema_version5"));
}

TEST_F(SnapshotStoreTest, WritesSafelyAndWaitsForOthers) {
  open();
  Database reading(path, Database::Access::readOnly), writing(path, Database::Access::readWriteCreate);
  SnapshotSchema::configureForWriting(writing);
  const auto settingsOf = [](Database& database) {
    std::string settings;
    for (const char* pragma : {"PRAGMA busy_timeout;", "PRAGMA foreign_keys;", "PRAGMA journal_mode;",
                               "PRAGMA synchronous;", "PRAGMA wal_autocheckpoint;"})
      settings += column(database, pragma).at(0) + " ";
    return settings;
  };
  EXPECT_EQ(settingsOf(reading), "5000 1 wal 2 1000 ");
  EXPECT_EQ(settingsOf(writing), "5000 1 wal 1 100 ") << "synchronous: normal";
}

TEST_F(SnapshotStoreTest, ReadsBackWhatItStored) {
  const DrainSnapshot snapshot = fullSnapshot();
  DrainSnapshot offered = snapshot;
  offered.processes[0].sourceFlags = {"b", "a"};  // come back in the order of their key
  offered.processes[0].displayName = " B\n";
  offered.components.dramW = 3;  // has no column
  auto store = open();
  EXPECT_EQ(store.insert(offered), inserted);
  EXPECT_EQ(store.fetchLatest(10), std::vector{snapshot}) << "equal rows as they were stored";
  const DrainSnapshot bare = makeSnapshot(1'700'000'060, 5);
  EXPECT_EQ(store.insert(bare), inserted);
  EXPECT_EQ(store.fetchLatest(1), std::vector{bare});
  EXPECT_EQ(store.fetchSnapshot(1), snapshot);
  EXPECT_EQ(store.fetchSnapshot(3), std::nullopt);
  EXPECT_TRUE(store.fetchLatest(0).empty());
  query("UPDATE snapshots SET usb_model_available = NULL; UPDATE hidden_drains SET kind = 'of the future';");
  EXPECT_EQ(store.fetchSnapshot(1)->telemetry, std::nullopt) << "one absent column";
  query("DELETE FROM snapshots WHERE id = 1;");
  EXPECT_THAT(query("SELECT (SELECT COUNT(*) FROM process_samples) || (SELECT COUNT(*) FROM "
                    "process_source_flags) || (SELECT COUNT(*) FROM hidden_drains) || "
                    "(SELECT COUNT(*) FROM battery_status_samples);"),
              ElementsAre("0000"));
}

TEST_F(SnapshotStoreTest, RefusesRowsThatCantBeShownOrStored) {
  static constexpr double infinite = std::numeric_limits<double>::infinity();
  const std::string row = " for published process row: b", none = " is not a finite number",
                    rowB = " of the process row b" + none, part = " of the components" + none,
                    battery = " of the battery status" + none;
  struct Spoilt {
    DrainSnapshot all = makeSnapshot(5, 10, {shownProcess(1, "a", 1), shownProcess(2, "b", 1)});
    ProcessDrain& b = all.processes[1];
    ComponentDrain& parts = all.components;
    BatteryStatusSample& battery = all.batteryStatus.emplace();
  };
  const std::pair<std::string, void (*)(Spoilt&)> rows[] = {
      {"Missing display_name" + row, [](Spoilt& s) { s.b.displayName = " \n\u00a0"; }},
      {"Missing canonical_name" + row, [](Spoilt& s) { s.b.canonicalName.reset(); }},
      {"Missing process_group_key" + row, [](Spoilt& s) { s.b.processGroupKey = ""; }},
      {"PID 2147483648 is out of range" + row, [](Spoilt& s) { s.b.pid = std::int64_t{1} << 31; }},
      {"PID -2147483649 is out of range" + row, [](Spoilt& s) { s.b.parentPID = -(1LL << 31) - 1; }},
      {"UNIQUE constraint failed: process_samples.snapshot_id, process_samples.pid, "
       "process_samples.process_name",
       [](Spoilt& s) { s.b.pid = 1, s.b.name = "a"; }},
      {"drainW" + rowB, [](Spoilt& s) { s.b.drainW = std::nan(""); }},
      {"energyShare" + rowB, [](Spoilt& s) { s.b.energyShare = infinite; }},
      {"ramAttributedW" + rowB, [](Spoilt& s) { s.b.ramAttributedW = -infinite; }},
      {"timestamp of the snapshot" + none, [](Spoilt& s) { s.all.timestamp = {infinite}; }},
      {"unattributedW of the snapshot" + none, [](Spoilt& s) { s.all.unattributedW = infinite; }},
      {"dramW" + part, [](Spoilt& s) { s.parts.dramW = infinite; }},
      {"confidence" + part, [](Spoilt& s) { s.parts.confidence = infinite; }},
      {"drainW of the hidden workload web" + none,
       [](Spoilt& s) {
         s.all.hidden.push_back({{}, "web", infinite});
       }},
      {"batteryLevelPercent of the power context" + none,
       [](Spoilt& s) { s.all.powerContext.emplace().batteryLevelPercent = infinite; }},
      {"remainingWh" + battery, [](Spoilt& s) { s.battery.remainingWh = std::nan(""); }}};
  auto store = open();
  for (const auto& [message, spoil] : rows) {
    Spoilt spoilt;
    spoil(spoilt);
    EXPECT_EQ(thrownBy<SnapshotStoreError>([&] { store.insert(spoilt.all); }).what(), message);
  }
  EXPECT_EQ(query("SELECT COUNT(*) FROM snapshots;"), std::vector<std::string>{"0"}) << "rolled back whole";
  constexpr double largest = std::numeric_limits<double>::max();
  const DrainSnapshot huge = makeSnapshot(1e300, largest, {shownProcess(INT32_MIN, "a", -largest)});
  EXPECT_EQ(store.insert(huge), inserted) << "any finite number, and the store is usable afterwards";
  EXPECT_EQ(store.fetchLatest(1), std::vector{huge});
}

TEST_F(SnapshotStoreTest, KeepsTheBetterOfTwoOfTheSameMoment) {
  const struct {
    double secondsLater, processW;
    SnapshotInsertOutcome outcome;
    std::vector<std::string> kept;
  } rows[] = {{0.4, 2, replacedNearDuplicate, {"b"}},  {0.5, 3, replacedNearDuplicate, {"b"}},
              {-0.4, 2, replacedNearDuplicate, {"b"}}, {0.4, 1, droppedNearDuplicate, {"a"}},
              {0.625, 1, inserted, {"a", "b"}},        {-0.625, 1, inserted, {"b", "a"}}};
  for (const auto& row : rows) {
    std::filesystem::remove_all(folder / "new");
    auto store = open();
    store.insert(makeSnapshot(1000, 10, {shownProcess(1, "a", 2)}));
    EXPECT_EQ(store.insert(makeSnapshot(1000 + row.secondsLater, 10, {shownProcess(2, "b", row.processW)})),
              row.outcome);
    std::vector<std::string> kept;
    for (const DrainSnapshot& snapshot : store.fetchLatest(9)) kept.push_back(snapshot.processes[0].name);
    EXPECT_EQ(kept, row.kept) << row.secondsLater << " s later with " << row.processW << " W";
  }
}

// After the clock was set back, only the newest snapshot is compared with.
TEST_F(SnapshotStoreTest, ClockMayJump) {
  auto store = open();
  const std::pair<double, SnapshotInsertOutcome> rows[] = {
      {0, inserted}, {4, inserted}, {4, replacedNearDuplicate}, {1, inserted}, {4, replacedNearDuplicate},
      {-1, inserted}};
  for (const auto& [hours, outcome] : rows) EXPECT_EQ(store.insert(makeSnapshot(hours * 3600, 10)), outcome);
  std::vector<double> hours;
  for (const DrainSnapshot& snapshot : store.fetchLatest(9))
    hours.push_back(snapshot.timestamp.secondsSince1970() / 3600);
  EXPECT_THAT(hours, ElementsAre(-1, 0, 1, 4));
  EXPECT_DOUBLE_EQ(store.fetchEnergyUsageSummary(9).totalWh, 0.5) << "three minutes at 10 W";
}

TEST_F(SnapshotStoreTest, PurgesWhatIsOlderAndShrinks) {
  auto store = open();
  for (int index = 0; index < 40; ++index) {
    DrainSnapshot snapshot = makeSnapshot(index, 10);
    for (int pid = 1; pid < 200; ++pid) snapshot.processes.push_back(shownProcess(pid, "process", 0.01));
    store.insert(snapshot);
  }
  const auto size = [&] {
    query("PRAGMA wal_checkpoint(TRUNCATE);");
    return std::filesystem::file_size(path);
  };
  query("DELETE FROM process_samples WHERE snapshot_id = 1;");
  const auto before = size();
  EXPECT_EQ(store.purgeSnapshots(PointInTime::fromSecondsSince1970(0)), 0);
  EXPECT_EQ(size(), before) << "nothing deleted, nothing rewritten";
  EXPECT_EQ(store.purgeSnapshots(PointInTime::fromSecondsSince1970(39)), 39);
  EXPECT_EQ(store.fetchLatest(99).front().timestamp.secondsSince1970(), 39);
  EXPECT_LT(size(), before / 4);
}

TEST(SQLiteSnapshotStoreLocation, IsSharedOrTheUsersOwn) {
  EXPECT_EQ(SQLiteSnapshotStoreLocation::localAppDatabaseURL("/u/data"),
            "/u/data/Quenzel/battery_history.sqlite");
  EXPECT_STREQ(thrownBy<SQLiteSnapshotStoreLocationError>([] {
                 SQLiteSnapshotStoreLocation::localAppDatabaseURL(std::nullopt);
               }).what(),
               "Unable to locate the Application Support directory.");
  const ScopedEnvironment home({{"XDG_DATA_HOME", "relative"}, {"HOME", "/u"}});
  EXPECT_EQ(SQLiteSnapshotStoreLocation::localAppDatabaseURL(),
            "/u/.local/share/Quenzel/battery_history.sqlite");
  const TemporaryDirectory folder;
  folder.write("file", "");
  folder.write("there/Quenzel/battery_history.sqlite", "");
  const std::pair<const char*, bool> rows[] = {
      {".", true}, {"missing/too", true}, {"there", true}, {"file", false}, {"file/below", false}};
  for (const auto& [directory, isShared] : rows) {
    const ScopedEnvironment shared({{"QZL_SHARED_DIRECTORY", folder / directory}});
    EXPECT_EQ(SQLiteSnapshotStoreLocation::defaultDatabaseURL(),
              isShared ? SQLiteSnapshotStoreLocation::sharedSnapshotDatabaseURL()
                       : "/u/.local/share/Quenzel/battery_history.sqlite")
        << directory;
  }
}

TEST_F(SnapshotStoreTest, FailsWithSQLitesOwnWords) {
  const auto failure = [](const std::string& file, Mode mode) {
    return std::string(thrownBy<SnapshotStoreError>([&] {
                         SQLiteSnapshotStore(file, mode).insert(makeSnapshot(1, 1));
                       }).what());
  };
  EXPECT_EQ(thrownBy<SnapshotStoreError>([] { SQLiteSnapshotStore("", Mode::readOnly); }).kind(),
            SnapshotStoreError::Kind::invalidPath);
  EXPECT_EQ(failure("", Mode::readWriteCreate), "Invalid database path");
  EXPECT_EQ(failure(path, Mode::readOnly), "unable to open database file");
  EXPECT_FALSE(std::filesystem::exists(folder / "new"));
  open();
  EXPECT_EQ(failure(path, Mode::readOnly), "attempt to write a readonly database");
}

}  // namespace
}  // namespace quenzel
