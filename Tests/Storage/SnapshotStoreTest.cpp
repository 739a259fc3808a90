#include <cmath>
#include <limits>
#include <map>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"
#include "Storage/SQLiteSnapshotStoreLocation.hpp"
#include "Storage/SnapshotSchema.hpp"
#include "Storage/SnapshotStoreError.hpp"
#include "Tests/Support/Fingerprint.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using enum SnapshotInsertOutcome;
using Mode = SQLiteSnapshotStore::Mode;
using namespace ::testing;
using namespace testing;

/// A snapshot in which every stored field has a value of its own.
DrainSnapshot fullSnapshot() {
  DrainSnapshot snapshot = makeSnapshot(1'700'000'000.25, 21.5);
  snapshot.processes = {makeNamedDrain(7, "/A/B.app/x", 4.5, {"a", "b"}),
                        makeNamedDrain(-9, "of one PID", 2, {"c"}),
                        makeNamedDrain(-9, "another", 1.25, {"d"}), makeNamedDrain(-10, "equal", 1.25)};
  ProcessDrain& first = snapshot.processes[0];
  first.parentPID = 3;
  first.bundleID = "com.example.b";
  first.displayName = "B";
  first.canonicalName = "Bee";
  first.processGroupKey = "app:b";
  first.energyShare = 0.5;
  snapshot.hidden = {{HiddenDrainKind::dockerContainer, "web", 2},
                     {HiddenDrainKind::launchdService, "s", 1},
                     {HiddenDrainKind::dockerContainer, "equal", 1}};
  snapshot.components = {1.5, 0.5, 6, 3, 2, 0, 0, 0.75, 0.125, 0.9};
  snapshot.unattributedW = 10.75;
  snapshot.telemetry = {true, 12, false, true, false, true, false};
  snapshot.powerContext = {true, 64.5};
  snapshot.batteryStatus = {64.5, 40.25, false, true, 120,  21.5, 300,  12100, -1700, 3050, 5103,
                            4800, 3100,  4900,  1000, "SN", "bq", true, false, 96,    "96W"};
  return snapshot;
}

std::vector<std::string> column(Database& database, std::string_view sql) {
  std::vector<std::string> values;
  Statement rows = database.prepared(sql);
  while (rows.next()) values.push_back(rows.column<std::string>(0));
  return values;
}

class SnapshotStoreTest : public ::testing::Test {
 protected:
  SQLiteSnapshotStore open() { return {path, Mode::readWriteCreate}; }
  std::vector<std::string> query(const std::string& sql) {
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
  // Of each table its columns ("!": not null; "=": default; "#": place in the primary key) and foreign keys;
  // of each index its columns.
  const char* const describe = R"(
      SELECT m.name || ':'
        || COALESCE((SELECT group_concat(' ' || name || ' ' || substr(type, 1, 1) || iif("notnull", '!', '')
             || COALESCE('=' || dflt_value, '') || iif(pk, '#' || pk, ''), '')
           FROM pragma_table_info(m.name)), '')
        || COALESCE((SELECT group_concat('; ' || "from" || '>' || "table" || '.' || "to" || ' ' || on_delete, '')
           FROM pragma_foreign_key_list(m.name)), '')
        || COALESCE((SELECT group_concat(' ' || name || iif("desc", ' DESC', ''))
           FROM pragma_index_xinfo(m.name) WHERE key = 1), '')
        || iif(sql LIKE '%AUTOINCREMENT%', ' AUTO', '')
      FROM sqlite_master m WHERE sql NOT NULL AND name NOT LIKE 'sqlite%' ORDER BY name;)";
  std::string schema;
  for (const std::string& table : query(describe)) schema += table + "\n";
  EXPECT_EQ(testing::fingerprint(schema), 0xAB5D7F85417F74AEU) << "other tables are of another version:\n"
                                                               << schema;
  EXPECT_THAT(query("SELECT key || value FROM schema_metadata;"), ElementsAre("snapshot_schema_version5"));
}

TEST_F(SnapshotStoreTest, WritesSafelyAndWaitsForOthers) {
  open();
  Database database(path, Database::Access::readWriteCreate);
  SnapshotSchema::configureForWriting(database);
  std::string settings;
  for (const char* pragma : {"PRAGMA busy_timeout;", "PRAGMA foreign_keys;", "PRAGMA journal_mode;",
                             "PRAGMA synchronous;", "PRAGMA wal_autocheckpoint;"})
    settings += column(database, pragma).at(0) + " ";
  EXPECT_EQ(settings, "5000 1 wal 1 100 ") << "synchronous: normal";
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
  for (const std::string telemetry :
       {"pm_command_ok", "pm_parsed_process_count", "pm_has_package_power", "pm_has_system_power",
        "used_estimated_total_power", "screen_model_available", "usb_model_available"}) {
    query("UPDATE snapshots SET " + telemetry + " = NULL;");
    EXPECT_EQ(store.fetchSnapshot(1)->telemetry, std::nullopt) << telemetry;
    query("UPDATE snapshots SET " + telemetry + " = 1;");
  }
  query("DELETE FROM snapshots WHERE id = 1;");
  EXPECT_THAT(query("SELECT (SELECT COUNT(*) FROM process_samples) || (SELECT COUNT(*) FROM "
                    "process_source_flags) || (SELECT COUNT(*) FROM hidden_drains) || "
                    "(SELECT COUNT(*) FROM battery_status_samples);"),
              ElementsAre("0000"));
}

TEST_F(SnapshotStoreTest, RefusesRowsThatCantBeShownOrStored) {
  const std::string row = " for published process row: b";
  const std::pair<std::string, void (*)(ProcessDrain&)> rows[] = {
      {"Missing display_name" + row, [](ProcessDrain& b) { b.displayName = " \n\u00a0"; }},
      {"Missing canonical_name" + row, [](ProcessDrain& b) { b.canonicalName.reset(); }},
      {"Missing process_group_key" + row, [](ProcessDrain& b) { b.processGroupKey = ""; }},
      {"PID 2147483648 is out of range" + row, [](ProcessDrain& b) { b.pid = std::int64_t{1} << 31; }},
      {"PID -2147483649 is out of range" + row, [](ProcessDrain& b) { b.parentPID = -(1LL << 31) - 1; }},
      {"UNIQUE constraint failed: process_samples.snapshot_id, process_samples.pid, "
       "process_samples.process_name",
       [](ProcessDrain& b) { b.pid = 1, b.name = "a"; }}};
  auto store = open();
  for (const auto& [message, spoil] : rows) {
    DrainSnapshot spoilt = makeSnapshot(5, 10, {makeNamedDrain(1, "a", 1), makeNamedDrain(2, "b", 1)});
    spoil(spoilt.processes[1]);
    EXPECT_EQ(thrownBy<SnapshotStoreError>([&] { store.insert(spoilt); }).what(), message);
  }
  EXPECT_EQ(query("SELECT COUNT(*) FROM snapshots;"), std::vector<std::string>{"0"}) << "rolled back whole";
  constexpr double largest = std::numeric_limits<double>::max();
  const DrainSnapshot huge = makeSnapshot(
      1e300, largest, {makeNamedDrain(INT32_MAX, "b", largest), makeNamedDrain(INT32_MIN, "a", -largest)});
  EXPECT_EQ(store.insert(huge), inserted) << "any finite number, and the store is usable afterwards";
  EXPECT_EQ(store.fetchLatest(1), std::vector{huge});
}

TEST_F(SnapshotStoreTest, RefusesEachNumberThatIsNotFinite) {
  const std::map<std::string, std::string> owners = {{"", "snapshot"},
                                                     {"/processes/0", "process row /A/B.app/x"},
                                                     {"/hidden/0", "hidden workload web"},
                                                     {"/components", "components"},
                                                     {"/powerContext", "power context"},
                                                     {"/batteryStatus", "battery status"}};
  DrainSnapshot snapshot = fullSnapshot();
  snapshot.processes.resize(1);
  snapshot.hidden.resize(1);
  ProcessDrain& process = snapshot.processes[0];
  process.rawCPUPercent = process.cpuCapacityFraction = process.cpuAttributedW = process.ramAttributedW = 1;
  const nlohmann::json sound = encodeDrainSnapshot(snapshot);
  const nlohmann::json fields = sound.flatten();
  auto store = open();
  for (const auto& [pointerText, value] : fields.items()) {
    if (!value.is_number_float()) continue;
    const nlohmann::json::json_pointer pointer(pointerText);
    nlohmann::json spoilt = sound;
    spoilt[pointer] = value < 3 ? std::numeric_limits<double>::infinity() : std::nan("");
    EXPECT_EQ(thrownBy<SnapshotStoreError>([&] { store.insert(decodeDrainSnapshot(spoilt, {})); }).what(),
              fmt::format("{} of the {} is not a finite number", pointer.back(),
                          owners.at(pointer.parent_pointer().to_string())));
  }
}

TEST_F(SnapshotStoreTest, KeepsTheBetterOfTwoOfTheSameMoment) {
  const std::string replaced = "replacedNearDuplicate", dropped = "droppedNearDuplicate";
  const std::tuple<double, double, std::string, std::string> rows[] = {
      {0.4, 2, replaced, "0b"}, {0.5, 3, replaced, "0b"},      {-0.4, 2, replaced, "0b"},
      {0.4, 1, dropped, "0a"},  {0.625, 1, "inserted", "0ab"}, {-0.625, 1, "inserted", "0ba"}};
  for (const auto& [secondsLater, processW, outcome, names] : rows) {
    std::filesystem::remove_all(folder / "new");
    auto store = open();
    store.insert(makeSnapshot(1000, 10, {makeNamedDrain(1, "a", 2)}));
    EXPECT_EQ(store.insert(makeSnapshot(0, 10, {makeNamedDrain(1, "0", 2)})), inserted) << "the clock jumps";
    const auto other = makeSnapshot(1000 + secondsLater, 10, {makeNamedDrain(2, "b", processW)});
    EXPECT_EQ(rawValue(store.insert(other)), outcome);
    EXPECT_EQ(store.fetchSnapshotIDs().front(), 2);
    std::string kept;
    for (const DrainSnapshot& snapshot : store.fetchLatest(9)) kept += snapshot.processes[0].name;
    EXPECT_EQ(kept, names) << secondsLater << " s later with " << processW << " W";
  }
}

TEST_F(SnapshotStoreTest, PurgesWhatIsOlderAndShrinks) {
  auto store = open();
  for (int index = 0; index < 40; ++index) {
    DrainSnapshot snapshot = makeSnapshot(index, 10);
    for (int pid = 1; pid < 200; ++pid) snapshot.processes.push_back(makeNamedDrain(pid, "process", 0.01));
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

TEST_F(SnapshotStoreTest, FollowsAnEstimateToItsEvaluation) {
  using Status = EstimateTrackingStatus;
  const auto at = [](double seconds) { return PointInTime{seconds}; };
  const auto idsOf = [](const std::vector<EstimateTrackingRow>& rows) {
    std::string ids;
    for (const EstimateTrackingRow& row : rows) ids += std::to_string(row.id);
    return ids;
  };
  auto store = open();
  const std::string estimate =
      R"("estimatedAt":300.0,"horizonSeconds":900,"estimateSource":"système",)"
      R"("onBatteryPower":true,"startingBatteryLevelPercent":81.5,"estimatedPowerW":12.25,)"
      R"("estimatedDrainRatePctPerHour":9.5,"estimatedTimeRemainingMinutes":480)";
  const std::string evaluation =
      R"("status":"evaluated","evaluatedAt":1200.0,"sampleDurationSeconds":890.5,)"
      R"("actualBatteryLevelPercent":79.25,"actualAveragePowerW":11.75,)"
      R"("actualDrainRatePctPerHour":9.0,"actualTimeRemainingMinutes":500.5,)"
      R"("powerErrorW":-0.5,"drainRateErrorPctPerHour":-0.25,"timeRemainingErrorMinutes":20.5)";
  EXPECT_EQ(store.insert(decodeEstimateInput(parseJSON("{" + estimate + "}"), {})), 1);
  EXPECT_EQ(store.insert(EstimateTrackingEstimateInput{.estimatedAt = at(100)}), 2);
  EXPECT_EQ(store.insert(EstimateTrackingEstimateInput{.estimatedAt = at(200)}), 3);

  EXPECT_EQ(store.fetchPendingEstimates(1), (std::vector<EstimateTrackingRow>{{2, at(100)}}));
  EXPECT_EQ(idsOf(store.fetchPendingEstimates(2)), "23") << "oldest first";
  EXPECT_EQ(idsOf(store.fetchEstimateRows(2)), "13") << "newest first";
  EXPECT_TRUE(store.fetchEstimateRows(-1).empty());

  EXPECT_TRUE(store.applyEvaluation(1, decodeEvaluationInput(parseJSON("{" + evaluation + "}"), {})));
  EXPECT_TRUE(store.applyEvaluation(2, {.status = Status::skippedPowerSourceChange, .evaluatedAt = at(160)}));
  EXPECT_FALSE(store.applyEvaluation(99, {.status = Status::evaluated}));
  EXPECT_EQ(idsOf(store.fetchPendingEstimates(9)), "3");
  const auto rows = store.fetchEstimateRows(9);
  EXPECT_EQ(rows[0],
            (EstimateTrackingRow{1, at(300), 900, "système", true, 81.5, 12.25, 9.5, 480, Status::evaluated,
                                 at(1200), 890.5, 79.25, 11.75, 9, 500.5, -0.5, -0.25, 20.5}));
  EXPECT_EQ(encodeEstimateRow(rows[0]).dump(),
            R"({"id":1,)" + estimate + "," + evaluation + R"(,"isEvaluated":true})");
  EXPECT_FALSE(rows[2].isEvaluated());

  EXPECT_THAT(query("SELECT evaluation_status FROM estimate_tracking WHERE id = 2;"),
              ElementsAre("skipped_power_source_change"));
  query("UPDATE estimate_tracking SET evaluation_status = 'of the future' WHERE id = 3;");
  EXPECT_EQ(store.fetchEstimateRows(9)[1].status, Status::skippedInsufficientData);
}

TEST(SQLiteSnapshotStoreLocation, IsSharedOrTheUsersOwn) {
  namespace Location = SQLiteSnapshotStoreLocation;
  EXPECT_STREQ(
      thrownBy<SQLiteSnapshotStoreLocationError>([] { Location::localAppDatabaseURL(std::nullopt); }).what(),
      "Unable to locate the Application Support directory.");
  const ScopedEnvironment home({{"XDG_DATA_HOME", "relative"}, {"HOME", "/u"}});
  const std::string own = "/u/.local/share/Quenzel/battery_history.sqlite";
  EXPECT_EQ(Location::localAppDatabaseURL(), own);
  const TemporaryDirectory folder;
  std::filesystem::permissions(folder.write("file", ""), std::filesystem::perms::owner_all);
  folder.write("there/Quenzel/battery_history.sqlite", "");
  const std::pair<const char*, bool> rows[] = {
      {".", true}, {"missing/too", true}, {"there", true}, {"file", false}, {"file/below", false}};
  for (const auto& [directory, isShared] : rows) {
    const ScopedEnvironment shared({{"QZL_SHARED_DIRECTORY", folder / directory}});
    EXPECT_EQ(Location::defaultDatabaseURL(), isShared ? Location::sharedSnapshotDatabaseURL() : own)
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
  EXPECT_STREQ(SnapshotStoreError::ofConnection(nullptr).what(), "Unknown SQLite error");
  EXPECT_EQ(failure("", Mode::readWriteCreate), "Invalid database path");
  EXPECT_EQ(failure(path, Mode::readOnly), "unable to open database file");
  EXPECT_FALSE(std::filesystem::exists(folder / "new"));
  open();
  EXPECT_EQ(failure(path, Mode::readOnly), "attempt to write a readonly database");
}

}  // namespace
}  // namespace quenzel
