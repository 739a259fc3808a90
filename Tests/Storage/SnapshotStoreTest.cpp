#include <cmath>
#include <limits>
#include <type_traits>

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
  DrainSnapshot snapshot = makeSnapshot(1'700'000'000.25, 21.5);
  snapshot.processes = {{7,
                         3,
                         "/A/B.app/x",
                         "com.example.b",
                         "B",
                         "Bee",
                         "bundle:com.example.b",
                         4.5,
                         0.75,
                         {},
                         {},
                         {},
                         {},
                         {"b", "a"}},
                        {-9, {}, "bare", {}, "Bare", "bare", "name:bare", 1.25, 0.25, {}, {}, {}, {}, {}},
                        {-10, {}, "equal", {}, "E", "e", "name:equal", 1.25, 0.25, {}, {}, {}, {}, {}}};
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

std::string text(Database& database, const char* sql) { return column(database, sql).at(0); }

class SnapshotStoreTest : public ::testing::Test {
 protected:
  SQLiteSnapshotStore open() { return {path, Mode::readWriteCreate}; }
  std::vector<std::string> query(const char* sql) {
    Database database(path, Database::Access::readWriteCreate);
    return column(database, sql);
  }

  /// The columns ("!": not null, "=": default, "#": place in the primary key) and foreign keys of a table.
  std::string descriptionOf(const std::string& table) {
    return query(
               ("SELECT (SELECT group_concat(name || ' ' || type || iif(\"notnull\", '!', '') || "
                "COALESCE('=' || dflt_value, '') || iif(pk, '#' || pk, ''), ', ') FROM pragma_table_info('" +
                table +
                "')) || COALESCE((SELECT group_concat('; ' || \"from\" || '>' || \"table\" || '.' || "
                "\"to\" || ' ' || on_delete, '') FROM pragma_foreign_key_list('" +
                table + "')), '');")
                   .c_str())
        .at(0);
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
  const std::pair<const char*, const char*> tables[] = {
      {"schema_metadata", "key TEXT#1, value TEXT!"},
      {"snapshots",
       "id INTEGER#1, timestamp REAL!, total_watts REAL!, process_total_w REAL!, tracker_total_w REAL!, "
       "on_battery_power INTEGER, battery_level_percent REAL, pm_command_ok INTEGER, "
       "pm_parsed_process_count INTEGER, pm_has_package_power INTEGER, pm_has_system_power INTEGER, "
       "used_estimated_total_power INTEGER, screen_model_available INTEGER, usb_model_available INTEGER, "
       "components_screen_w REAL!, components_usb_w REAL!, components_cpu_w REAL!=0, components_gpu_w "
       "REAL!=0, components_ane_w REAL!=0, components_ram_w REAL!=0, components_pci_w REAL!=0, "
       "components_confidence REAL, unattributed_w REAL!"},
      {"process_samples",
       "snapshot_id INTEGER!#1, pid INTEGER!#2, parent_pid INTEGER, process_name TEXT!#3, bundle_id TEXT, "
       "display_name TEXT!, canonical_name TEXT!, process_group_key TEXT!, drain_w REAL!, energy_share REAL!"
       "; snapshot_id>snapshots.id CASCADE"},
      {"process_source_flags",
       "snapshot_id INTEGER!#1, pid INTEGER!#2, process_name TEXT!#3, source_flag TEXT!#4"
       "; snapshot_id>process_samples.snapshot_id CASCADE; pid>process_samples.pid CASCADE"
       "; process_name>process_samples.process_name CASCADE"},
      {"hidden_drains",
       "snapshot_id INTEGER!#1, kind TEXT!#2, identifier TEXT!#3, drain_w REAL!"
       "; snapshot_id>snapshots.id CASCADE"},
      {"battery_status_samples",
       "snapshot_id INTEGER#1, level_percent REAL!, remaining_wh REAL, is_charging INTEGER!, "
       "external_power_connected INTEGER!, system_time_remaining_minutes INTEGER, discharge_watts REAL, "
       "cycle_count INTEGER, voltage_mv INTEGER, amperage_ma INTEGER, temperature_centi_c INTEGER, "
       "design_capacity_mah INTEGER, max_capacity_mah INTEGER, current_capacity_mah INTEGER, "
       "nominal_charge_capacity_mah INTEGER, design_cycle_count INTEGER, serial_number TEXT, device_name "
       "TEXT, fully_charged INTEGER, is_ac_powered INTEGER, adapter_watts INTEGER, adapter_name TEXT"
       "; snapshot_id>snapshots.id CASCADE"},
      {"estimate_tracking",
       "id INTEGER#1, estimate_timestamp REAL!, horizon_seconds INTEGER!, estimate_source TEXT!, on_battery "
       "INTEGER!, start_battery_percent REAL!, estimated_power_w REAL!, estimated_drain_rate_pct_hr REAL, "
       "estimated_time_left_min INTEGER, evaluation_status TEXT!='pending', evaluated_at REAL, "
       "sample_duration_seconds REAL, actual_battery_percent REAL, actual_avg_power_w REAL, "
       "actual_drain_rate_pct_hr REAL, actual_time_left_min REAL, power_error_w REAL, "
       "drain_rate_error_pct_hr REAL, time_left_error_min REAL"}};
  for (const auto& [table, description] : tables) EXPECT_EQ(descriptionOf(table), description) << table;
  const std::vector<std::string> indexes = {"idx_estimate_tracking_estimate_ts estimate_timestamp DESC",
                                            "idx_estimate_tracking_status_ts evaluation_status "
                                            "estimate_timestamp DESC",
                                            "idx_process_samples_canonical_name canonical_name",
                                            "idx_process_samples_display_name display_name",
                                            "idx_process_samples_group_key_snapshot process_group_key "
                                            "snapshot_id",
                                            "idx_process_samples_snapshot snapshot_id",
                                            "idx_process_samples_snapshot_group_key snapshot_id "
                                            "process_group_key",
                                            "idx_snapshots_timestamp timestamp DESC"};
  EXPECT_EQ(query("SELECT name || (SELECT group_concat(' ' || name || iif(\"desc\", ' DESC', ''), '') "
                  "FROM pragma_index_xinfo(m.name) WHERE key = 1) FROM sqlite_master m "
                  "WHERE type = 'index' AND sql IS NOT NULL ORDER BY name;"),
            indexes);
  EXPECT_THAT(query("SELECT name FROM sqlite_master WHERE sql LIKE '%AUTOINCREMENT%' ORDER BY name;"),
              ElementsAre("estimate_tracking", "snapshots"));
  EXPECT_EQ(query("SELECT value FROM schema_metadata WHERE key = 'snapshot_schema_version';"),
            std::vector<std::string>{"5"});
}

TEST_F(SnapshotStoreTest, WritesSafelyAndWaitsForOthers) {
  open();
  Database reading(path, Database::Access::readOnly), writing(path, Database::Access::readWriteCreate);
  SnapshotSchema::configureForWriting(writing);
  for (Database* database : {&reading, &writing}) {
    EXPECT_EQ(text(*database, "PRAGMA busy_timeout;"), "5000");
    EXPECT_EQ(text(*database, "PRAGMA foreign_keys;"), "1");
    EXPECT_EQ(text(*database, "PRAGMA journal_mode;"), "wal");
  }
  EXPECT_EQ(text(writing, "PRAGMA synchronous;"), "1") << "normal";
  EXPECT_EQ(text(writing, "PRAGMA wal_autocheckpoint;"), "100");
}

TEST_F(SnapshotStoreTest, ReadsBackWhatItStored) {
  DrainSnapshot snapshot = fullSnapshot();
  auto store = open();
  EXPECT_EQ(store.insert(snapshot), inserted);
  // By descending power, equal ones as they were stored; flags in the order of their key.
  snapshot.processes.front().sourceFlags = {"a", "b"};
  EXPECT_EQ(store.fetchLatest(10), std::vector{snapshot});
  EXPECT_EQ(store.fetchSnapshot(1), snapshot);
  EXPECT_EQ(store.fetchSnapshot(2), std::nullopt);

  DrainSnapshot bare = makeSnapshot(1'700'000'060, 5);
  bare.components.dramW = 3;  // has no column
  EXPECT_EQ(store.insert(bare), inserted);
  bare.components.dramW = 0;
  EXPECT_EQ(store.fetchLatest(1), std::vector{bare});
  EXPECT_EQ(query("SELECT process_total_w || ' ' || tracker_total_w FROM snapshots;"),
            (std::vector<std::string>{"7.0 0.0", "0.0 0.0"}));
  query("UPDATE snapshots SET usb_model_available = NULL WHERE id = 1;");
  EXPECT_EQ(store.fetchSnapshot(1)->telemetry, std::nullopt) << "one absent column";

  EXPECT_EQ(store.fetchLatest(0), std::vector<DrainSnapshot>{});
  query("DELETE FROM snapshots WHERE id = 1;");
  for (const char* table :
       {"process_samples", "process_source_flags", "hidden_drains", "battery_status_samples"})
    EXPECT_EQ(query(("SELECT COUNT(*) FROM " + std::string(table)).c_str()), std::vector<std::string>{"0"});
}

TEST_F(SnapshotStoreTest, CountsItsOwnProcesses) {
  const ScopedEnvironment plain({{"QZL_INFO_PLIST", std::nullopt}});
  DrainSnapshot snapshot = makeSnapshot(0, 100);
  snapshot.processes = {shownProcess(1, "/opt/QUENZEL/x", 1), shownProcess(2, "BatteryMetricsDaemon", 2),
                        shownProcess(3, "other", 4), shownProcess(4, "agent", 8),
                        shownProcess(5, "quenzel", -16)};
  snapshot.processes[3].bundleID = "COM.Quenzel.agent";
  auto store = open();
  store.insert(snapshot);
  EXPECT_EQ(query("SELECT process_total_w || ' ' || tracker_total_w FROM snapshots;"),
            std::vector<std::string>{"15.0 11.0"});
}

TEST_F(SnapshotStoreTest, RefusesRowsThatCantBeShownOrStored) {
  auto store = open();
  const auto refusal = [&](auto spoil) {
    DrainSnapshot snapshot = makeSnapshot(5, 10, {shownProcess(1, "a", 1), shownProcess(2, "b", 1)});
    if constexpr (std::is_invocable_v<decltype(spoil), ProcessDrain&>)
      spoil(snapshot.processes[1]);
    else
      spoil(snapshot);
    return std::string(thrownBy<SnapshotStoreError>([&] { store.insert(snapshot); }).what());
  };
  const std::string row = " for published process row: b";
  EXPECT_EQ(refusal([](ProcessDrain& b) { b.displayName = " \n\u00a0"; }), "Missing display_name" + row);
  EXPECT_EQ(refusal([](ProcessDrain& b) { b.canonicalName.reset(); }), "Missing canonical_name" + row);
  EXPECT_EQ(refusal([](ProcessDrain& b) { b.processGroupKey = ""; }), "Missing process_group_key" + row);
  EXPECT_EQ(refusal([](ProcessDrain& b) { b.pid = std::int64_t{1} << 31; }),
            "PID 2147483648 is out of range" + row);
  EXPECT_EQ(refusal([](ProcessDrain& b) { b.parentPID = -(std::int64_t{1} << 31) - 1; }),
            "PID -2147483649 is out of range" + row);
  EXPECT_EQ(refusal([](ProcessDrain& b) { b.pid = 1, b.name = "a"; }),
            "UNIQUE constraint failed: process_samples.snapshot_id, process_samples.pid, "
            "process_samples.process_name");
  constexpr double infinite = std::numeric_limits<double>::infinity();
  const std::string none = " is not a finite number";
  EXPECT_EQ(refusal([](ProcessDrain& b) { b.drainW = std::nan(""); }), "drainW of the process row b" + none);
  EXPECT_EQ(refusal([](ProcessDrain& b) { b.energyShare = infinite; }),
            "energyShare of the process row b" + none);
  EXPECT_EQ(refusal([](ProcessDrain& b) { b.ramAttributedW = -infinite; }),
            "ramAttributedW of the process row b" + none);
  EXPECT_EQ(refusal([](DrainSnapshot& all) { all.timestamp = {infinite}; }),
            "timestamp of the snapshot" + none);
  EXPECT_EQ(refusal([](DrainSnapshot& all) { all.unattributedW = infinite; }),
            "unattributedW of the snapshot" + none);
  EXPECT_EQ(refusal([](DrainSnapshot& all) { all.components.dramW = infinite; }),
            "dramW of the components" + none);
  EXPECT_EQ(refusal([](DrainSnapshot& all) {
              all.hidden = {{{}, "web", infinite}};
            }),
            "drainW of the hidden workload web" + none);
  EXPECT_EQ(refusal([](DrainSnapshot& all) {
              all.powerContext = {true, infinite};
            }),
            "batteryLevelPercent of the power context" + none);
  EXPECT_EQ(refusal([](DrainSnapshot& all) { all.batteryStatus.emplace().remainingWh = std::nan(""); }),
            "remainingWh of the battery status" + none);
  EXPECT_EQ(query("SELECT COUNT(*) FROM snapshots;"), std::vector<std::string>{"0"}) << "rolled back whole";
  constexpr double largest = std::numeric_limits<double>::max();
  const DrainSnapshot huge = makeSnapshot(1e300, largest, {shownProcess(INT32_MIN, "a", -largest)});
  EXPECT_EQ(store.insert(huge), inserted) << "any finite number, and the store is usable afterwards";
  EXPECT_EQ(store.fetchLatest(1), std::vector{huge});
}

TEST_F(SnapshotStoreTest, KeepsTheBetterOfTwoOfTheSameMoment) {
  struct Row {
    double secondsLater, processW;
    SnapshotInsertOutcome outcome;
  };
  // The first has 2 of 10 W: quality 1.2. A dropped one leaves the first in place, so that the rows are
  // independent.
  const Row rows[] = {{0.4, 2, replacedNearDuplicate},
                      {0.5, 3, replacedNearDuplicate},
                      {-0.4, 2, replacedNearDuplicate},
                      {0.4, 1, droppedNearDuplicate},
                      {0.625, 1, inserted},
                      {-0.625, 1, inserted}};
  for (const Row& row : rows) {
    std::filesystem::remove_all(folder / "new");
    auto store = open();
    store.insert(makeSnapshot(1000, 10, {shownProcess(1, "a", 2)}));
    const DrainSnapshot second =
        makeSnapshot(1000 + row.secondsLater, 10, {shownProcess(2, "b", row.processW)});
    EXPECT_EQ(store.insert(second), row.outcome)
        << row.secondsLater << " s later with " << row.processW << " W";
    EXPECT_EQ(store.fetchLatest(9).size(), row.outcome == inserted ? 2u : 1u);
    EXPECT_EQ(store.fetchLatest(9).back().processes.front().name == "b",
              row.outcome == replacedNearDuplicate || (row.outcome == inserted && row.secondsLater > 0));
  }
}

TEST_F(SnapshotStoreTest, PurgesWhatIsOlderAndShrinks) {
  auto store = open();
  for (int index = 0; index < 40; ++index) {
    DrainSnapshot snapshot = makeSnapshot(index, 10);
    for (int pid = 1; pid < 200; ++pid) snapshot.processes.push_back(shownProcess(pid, "process", 0.01));
    store.insert(snapshot);
  }
  query("DELETE FROM process_samples WHERE snapshot_id = 1;");
  EXPECT_EQ(store.purgeSnapshots(PointInTime::fromSecondsSince1970(0)), 0);
  EXPECT_NE(query("PRAGMA freelist_count;"), std::vector<std::string>{"0"})
      << "nothing deleted, nothing rewritten";
  query("PRAGMA wal_checkpoint(TRUNCATE);");
  const auto before = std::filesystem::file_size(path);
  EXPECT_EQ(store.purgeSnapshots(PointInTime::fromSecondsSince1970(39)), 39);
  EXPECT_EQ(store.fetchLatest(99).front().timestamp.secondsSince1970(), 39);
  query("PRAGMA wal_checkpoint(TRUNCATE);");
  EXPECT_LT(std::filesystem::file_size(path), before / 4);
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
  EXPECT_EQ(thrownBy<SnapshotStoreError>([] { SQLiteSnapshotStore("", Mode::readOnly); }).kind(),
            SnapshotStoreError::Kind::invalidPath);
  EXPECT_STREQ(thrownBy<SnapshotStoreError>([] { SQLiteSnapshotStore("", Mode::readWriteCreate); }).what(),
               "Invalid database path");
  EXPECT_STREQ(thrownBy<SnapshotStoreError>([&] { SQLiteSnapshotStore(path, Mode::readOnly); }).what(),
               "unable to open database file");
  EXPECT_FALSE(std::filesystem::exists(folder / "new"));
  const auto refused = thrownBy<SnapshotStoreError>(
      [&] { SQLiteSnapshotStore(folder.write("file", "") + "/history.sqlite", Mode::readWriteCreate); });
  EXPECT_EQ(refused.what(), "Can't create the folder " + (folder / "file") + ": File exists");
  open();
  const SQLiteSnapshotStore reader(path, Mode::readOnly);
  EXPECT_STREQ(thrownBy<SnapshotStoreError>([&] {
                 const_cast<SQLiteSnapshotStore&>(reader).insert(makeSnapshot(1, 1));
               }).what(),
               "attempt to write a readonly database");
}

}  // namespace
}  // namespace quenzel
