#include "Storage/SnapshotSchema.hpp"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "Base/ErrorText.hpp"
#include "Base/Number.hpp"
#include "Platform/SharedFiles.hpp"
#include "Storage/Database.hpp"
#include "Storage/SnapshotStoreError.hpp"

namespace quenzel {
namespace {

constexpr const char* createMetadata =
    "CREATE TABLE IF NOT EXISTS schema_metadata ("
    "key TEXT PRIMARY KEY, "
    "value TEXT NOT NULL);";

constexpr std::string_view selectVersion =
    "SELECT value FROM schema_metadata WHERE key = 'snapshot_schema_version' LIMIT 1;";

constexpr std::string_view upsertVersion =
    "INSERT INTO schema_metadata(key, value) VALUES('snapshot_schema_version', ?)\n"
    "ON CONFLICT(key) DO UPDATE SET value = excluded.value;";

/// Children before their parents.
constexpr const char* dropSnapshotTables[] = {
    "DROP TABLE IF EXISTS process_source_flags;",
    "DROP TABLE IF EXISTS process_samples;",
    "DROP TABLE IF EXISTS hidden_drains;",
    "DROP TABLE IF EXISTS battery_status_samples;",
    "DROP TABLE IF EXISTS snapshots;",
};

constexpr const char* createSnapshotTables[] = {
    "CREATE TABLE IF NOT EXISTS snapshots ("
    "id INTEGER PRIMARY KEY AUTOINCREMENT, "
    "timestamp REAL NOT NULL, "
    "total_watts REAL NOT NULL, "
    "process_total_w REAL NOT NULL, "
    "tracker_total_w REAL NOT NULL, "
    "on_battery_power INTEGER, "
    "battery_level_percent REAL, "
    "pm_command_ok INTEGER, "
    "pm_parsed_process_count INTEGER, "
    "pm_has_package_power INTEGER, "
    "pm_has_system_power INTEGER, "
    "used_estimated_total_power INTEGER, "
    "screen_model_available INTEGER, "
    "usb_model_available INTEGER, "
    "components_screen_w REAL NOT NULL, "
    "components_usb_w REAL NOT NULL, "
    "components_cpu_w REAL NOT NULL DEFAULT 0, "
    "components_gpu_w REAL NOT NULL DEFAULT 0, "
    "components_ane_w REAL NOT NULL DEFAULT 0, "
    "components_ram_w REAL NOT NULL DEFAULT 0, "
    "components_pci_w REAL NOT NULL DEFAULT 0, "
    "components_confidence REAL, "
    "unattributed_w REAL NOT NULL);",

    "CREATE INDEX IF NOT EXISTS idx_snapshots_timestamp ON snapshots(timestamp DESC);",

    "CREATE TABLE IF NOT EXISTS process_samples ("
    "snapshot_id INTEGER NOT NULL, "
    "pid INTEGER NOT NULL, "
    "parent_pid INTEGER, "
    "process_name TEXT NOT NULL, "
    "bundle_id TEXT, "
    "display_name TEXT NOT NULL, "
    "canonical_name TEXT NOT NULL, "
    "process_group_key TEXT NOT NULL, "
    "drain_w REAL NOT NULL, "
    "energy_share REAL NOT NULL, "
    "PRIMARY KEY (snapshot_id, pid, process_name), "
    "FOREIGN KEY (snapshot_id) REFERENCES snapshots(id) ON DELETE CASCADE);",

    "CREATE INDEX IF NOT EXISTS idx_process_samples_snapshot ON process_samples(snapshot_id);",
    "CREATE INDEX IF NOT EXISTS idx_process_samples_display_name ON process_samples(display_name);",
    "CREATE INDEX IF NOT EXISTS idx_process_samples_canonical_name ON process_samples(canonical_name);",
    "CREATE INDEX IF NOT EXISTS idx_process_samples_snapshot_group_key "
    "ON process_samples(snapshot_id, process_group_key);",
    "CREATE INDEX IF NOT EXISTS idx_process_samples_group_key_snapshot "
    "ON process_samples(process_group_key, snapshot_id);",

    "CREATE TABLE IF NOT EXISTS process_source_flags ("
    "snapshot_id INTEGER NOT NULL, "
    "pid INTEGER NOT NULL, "
    "process_name TEXT NOT NULL, "
    "source_flag TEXT NOT NULL, "
    "PRIMARY KEY (snapshot_id, pid, process_name, source_flag), "
    "FOREIGN KEY (snapshot_id, pid, process_name) "
    "REFERENCES process_samples(snapshot_id, pid, process_name) ON DELETE CASCADE);",

    "CREATE TABLE IF NOT EXISTS hidden_drains ("
    "snapshot_id INTEGER NOT NULL, "
    "kind TEXT NOT NULL, "
    "identifier TEXT NOT NULL, "
    "drain_w REAL NOT NULL, "
    "PRIMARY KEY (snapshot_id, kind, identifier), "
    "FOREIGN KEY (snapshot_id) REFERENCES snapshots(id) ON DELETE CASCADE);",

    "CREATE TABLE IF NOT EXISTS battery_status_samples ("
    "snapshot_id INTEGER PRIMARY KEY, "
    "level_percent REAL NOT NULL, "
    "remaining_wh REAL, "
    "is_charging INTEGER NOT NULL, "
    "external_power_connected INTEGER NOT NULL, "
    "system_time_remaining_minutes INTEGER, "
    "discharge_watts REAL, "
    "cycle_count INTEGER, "
    "voltage_mv INTEGER, "
    "amperage_ma INTEGER, "
    "temperature_centi_c INTEGER, "
    "design_capacity_mah INTEGER, "
    "max_capacity_mah INTEGER, "
    "current_capacity_mah INTEGER, "
    "nominal_charge_capacity_mah INTEGER, "
    "design_cycle_count INTEGER, "
    "serial_number TEXT, "
    "device_name TEXT, "
    "fully_charged INTEGER, "
    "is_ac_powered INTEGER, "
    "adapter_watts INTEGER, "
    "adapter_name TEXT, "
    "FOREIGN KEY (snapshot_id) REFERENCES snapshots(id) ON DELETE CASCADE);",
};

constexpr const char* createEstimateTracking[] = {
    "CREATE TABLE IF NOT EXISTS estimate_tracking ("
    "id INTEGER PRIMARY KEY AUTOINCREMENT, "
    "estimate_timestamp REAL NOT NULL, "
    "horizon_seconds INTEGER NOT NULL, "
    "estimate_source TEXT NOT NULL, "
    "on_battery INTEGER NOT NULL, "
    "start_battery_percent REAL NOT NULL, "
    "estimated_power_w REAL NOT NULL, "
    "estimated_drain_rate_pct_hr REAL, "
    "estimated_time_left_min INTEGER, "
    "evaluation_status TEXT NOT NULL DEFAULT 'pending', "
    "evaluated_at REAL, "
    "sample_duration_seconds REAL, "
    "actual_battery_percent REAL, "
    "actual_avg_power_w REAL, "
    "actual_drain_rate_pct_hr REAL, "
    "actual_time_left_min REAL, "
    "power_error_w REAL, "
    "drain_rate_error_pct_hr REAL, "
    "time_left_error_min REAL);",

    "CREATE INDEX IF NOT EXISTS idx_estimate_tracking_estimate_ts "
    "ON estimate_tracking(estimate_timestamp DESC);",
    "CREATE INDEX IF NOT EXISTS idx_estimate_tracking_status_ts "
    "ON estimate_tracking(evaluation_status, estimate_timestamp DESC);",
};

SnapshotStoreError cannotCreate(std::string_view what, const std::string& path, int reason) {
  return SnapshotStoreError::withMessage(
      fmt::format("Can't create the {} {}: {}", what, path, errorText(reason)));
}

void createFolders(const std::filesystem::path& folder) {
  std::error_code failure;  // shows in what follows
  if (folder.empty() || std::filesystem::is_directory(folder, failure)) return;
  createFolders(folder.parent_path());
  if (!platform::createSharedDataDirectory(folder)) throw cannotCreate("folder", folder, errno);
}

#define QUENZEL_TABLES                                                                            \
  "('schema_metadata', 'snapshots', 'process_samples', 'process_source_flags', 'hidden_drains', " \
  "'battery_status_samples', 'estimate_tracking')"
constexpr int tableCount = 7;

constexpr std::string_view countTables =
    "SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' AND name IN " QUENZEL_TABLES ";";

// Virtual tables have hidden columns.
constexpr std::string_view selectForeignTable =
    "SELECT name, 'it is a view' FROM sqlite_master\n"
    "WHERE type = 'view' AND lower(name) IN " QUENZEL_TABLES
    "\n"
    "UNION ALL\n"
    "SELECT entry.name, 'its column ' || columns.name || ' is computed'\n"
    "FROM sqlite_master AS entry JOIN pragma_table_xinfo(entry.name) AS columns\n"
    "WHERE entry.type = 'table' AND lower(entry.name) IN " QUENZEL_TABLES
    " AND columns.hidden <> 0\n"
    "LIMIT 1;";

bool hasAllTables(Database& database) {
  Statement count = database.prepared(countTables);
  return count.next() && count.column<std::int64_t>(0) == tableCount;
}

bool hasCurrentVersion(Database& database) {
  Statement select = database.prepared(selectVersion);
  if (!select.next()) return false;
  return parseInteger(select.column<std::string_view>(0)) == SnapshotSchema::version;
}

/// As one transaction, so that two processes that come first don't drop each other's tables, and a crash
/// leaves no half.
void resetSnapshotTables(Database& database) {
  WriteTransaction transaction(database);
  if (hasCurrentVersion(database)) return;  // another process was quicker
  for (const char* sql : dropSnapshotTables) database.execute(sql);
  for (const char* sql : createSnapshotTables) database.execute(sql);
  database.prepared(upsertVersion).run(std::to_string(SnapshotSchema::version));
  transaction.commit();
}

}  // namespace

void SnapshotSchema::prepareFile(const std::string& path) {
  createFolders(std::filesystem::path(path).parent_path());

  const int failure = platform::createSharedFile(path);
  if (failure == 0 || failure == EEXIST || failure == EISDIR) return;  // SQLite has words for a folder
  throw cannotCreate("file", path, failure);
}

void SnapshotSchema::configureForWriting(Database& database) {
  database.useWriteAheadLog();
  database.execute("PRAGMA synchronous = NORMAL;");
  database.execute("PRAGMA wal_autocheckpoint = 100;");
}

void SnapshotSchema::ensure(Database& database) {
  database.execute(createMetadata);
  if (!hasCurrentVersion(database)) {
    // A table that is dropped is emptied row by row first while foreign keys are kept, and a table of another
    // version that refers to it would forbid that for ever.
    database.execute("PRAGMA foreign_keys = OFF;");
    resetSnapshotTables(database);
    database.execute("PRAGMA foreign_keys = ON;");
  }
  for (const char* sql : createEstimateTracking) database.execute(sql);
  if (hasAllTables(database)) return;
  for (const char* sql : createSnapshotTables) database.execute(sql);
}

void SnapshotSchema::requirePlainTables(Database& database) {
  Statement select = database.prepared(selectForeignTable);
  if (!select.next()) return;
  throw SnapshotStoreError::withMessage(fmt::format(
      "{} is no table of this history: {}", select.column<std::string>(0), select.column<std::string>(1)));
}

bool SnapshotSchema::isComplete(Database& database) {
  return hasAllTables(database) && hasCurrentVersion(database);
}

}  // namespace quenzel
