// The store beside bare loops over SQLite's C interface: the same rows, the same statements, no checks, no
// records of ours. Each ratio of a figure to its `bound...` is from one run.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "Benchmarks/GeneratedHistory.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"
#include "Storage/EnergyQueries.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"

namespace quenzel::benchmarks {
namespace {

using Mode = SQLiteSnapshotStore::Mode;

constexpr std::int64_t insertedProcesses = 300;
constexpr std::int64_t latestSnapshots = 100;
constexpr std::int64_t windowRows = 500;
constexpr double weekSeconds = 7 * 24 * 3600;

/// Aborts the run instead of measuring nonsense.
void demand(bool holds) {
  if (!holds) std::abort();
}

sqlite3* openBare(const std::string& path) {
  sqlite3* connection = nullptr;
  demand(sqlite3_open(path.c_str(), &connection) == SQLITE_OK);
  sqlite3_exec(connection,
               "PRAGMA foreign_keys = ON; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; "
               "PRAGMA wal_autocheckpoint = 100;",
               nullptr, nullptr, nullptr);
  return connection;
}

sqlite3_stmt* prepareBare(sqlite3* connection, const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  demand(sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK);
  return statement;
}

/// An empty database with the store's tables, in the current folder.
std::string freshDatabase(const std::string& name) {
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(name + suffix);
  const SQLiteSnapshotStore makesTheTables(name, Mode::readWriteCreate);
  return name;
}

// Writing.

void insertSnapshot(benchmark::State& state) {
  SQLiteSnapshotStore store(freshDatabase("insert.sqlite"), Mode::readWriteCreate);
  DrainSnapshot snapshot = generatedSnapshot(0, insertedProcesses);
  for (auto _ : state) {
    snapshot.timestamp = snapshot.timestamp + 20;
    benchmark::DoNotOptimize(store.insert(snapshot));
  }
}
BENCHMARK(insertSnapshot)->Unit(benchmark::kMicrosecond);

void bindText(sqlite3_stmt* statement, int parameter, const std::string& text) {
  sqlite3_bind_text(statement, parameter, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void boundInsertSnapshot(benchmark::State& state) {
  sqlite3* connection = openBare(freshDatabase("insert-bound.sqlite"));
  sqlite3_stmt* header = prepareBare(
      connection,
      "INSERT INTO snapshots (timestamp, total_watts, process_total_w, tracker_total_w, on_battery_power, "
      "battery_level_percent, pm_command_ok, pm_parsed_process_count, pm_has_package_power, "
      "pm_has_system_power, used_estimated_total_power, screen_model_available, usb_model_available, "
      "components_screen_w, components_usb_w, components_cpu_w, components_gpu_w, components_ane_w, "
      "components_ram_w, components_pci_w, components_confidence, unattributed_w) "
      "VALUES (?, 12, 3, 0, 1, 90, 1, 300, 1, 0, 0, 1, 1, 2.5, 0.25, 4, 1, 0, 0, 0, 0.75, 1.5)");
  sqlite3_stmt* row = prepareBare(connection, "INSERT INTO process_samples VALUES (?,?,?,?,?,?,?,?,?,?)");
  sqlite3_stmt* flag = prepareBare(connection, "INSERT INTO process_source_flags VALUES (?,?,?,?)");
  sqlite3_stmt* hidden = prepareBare(connection, "INSERT INTO hidden_drains VALUES (?,?,?,?)");
  sqlite3_stmt* battery =
      prepareBare(connection,
                  "INSERT INTO battery_status_samples (snapshot_id, level_percent, is_charging, "
                  "external_power_connected, cycle_count, voltage_mv) VALUES (?, 90, 0, 0, 120, 12300)");
  const DrainSnapshot snapshot = generatedSnapshot(0, insertedProcesses);
  const auto step = [](sqlite3_stmt* statement) {
    demand(sqlite3_step(statement) == SQLITE_DONE);
    sqlite3_reset(statement);
  };
  double time = 0;
  for (auto _ : state) {
    sqlite3_exec(connection, "BEGIN IMMEDIATE TRANSACTION;", nullptr, nullptr, nullptr);
    sqlite3_bind_double(header, 1, time += 20);
    step(header);
    const std::int64_t id = sqlite3_last_insert_rowid(connection);
    for (const ProcessDrain& process : snapshot.processes) {
      sqlite3_bind_int64(row, 1, id);
      sqlite3_bind_int64(row, 2, process.pid);
      sqlite3_bind_int64(row, 3, *process.parentPID);
      bindText(row, 4, process.name);
      bindText(row, 5, *process.bundleID);
      bindText(row, 6, *process.displayName);
      bindText(row, 7, *process.canonicalName);
      bindText(row, 8, *process.processGroupKey);
      sqlite3_bind_double(row, 9, process.drainW);
      sqlite3_bind_double(row, 10, process.energyShare);
      step(row);
      sqlite3_bind_int64(flag, 1, id);
      sqlite3_bind_int64(flag, 2, process.pid);
      bindText(flag, 3, process.name);
      bindText(flag, 4, process.sourceFlags.front());
      step(flag);
    }
    sqlite3_bind_int64(hidden, 1, id);
    bindText(hidden, 2, "docker_container");
    bindText(hidden, 3, snapshot.hidden.front().identifier);
    sqlite3_bind_double(hidden, 4, 0.25);
    step(hidden);
    sqlite3_bind_int64(battery, 1, id);
    step(battery);
    sqlite3_exec(connection, "COMMIT;", nullptr, nullptr, nullptr);
  }
  for (sqlite3_stmt* statement : {header, row, flag, hidden, battery}) sqlite3_finalize(statement);
  sqlite3_close(connection);
}
BENCHMARK(boundInsertSnapshot)->Unit(benchmark::kMicrosecond);

// Reading whole snapshots.

void fetchLatest(benchmark::State& state) {
  const SQLiteSnapshotStore store(generatedWeek(), Mode::readOnly);
  for (auto _ : state) benchmark::DoNotOptimize(store.fetchLatest(latestSnapshots));
}
BENCHMARK(fetchLatest)->Unit(benchmark::kMillisecond);

void fetchWindowSnapshots(benchmark::State& state) {
  const SQLiteSnapshotStore store(generatedWeek(), Mode::readOnly);
  for (auto _ : state) benchmark::DoNotOptimize(store.fetchWindowSnapshots(weekSeconds, windowRows, {}));
}
BENCHMARK(fetchWindowSnapshots)->Unit(benchmark::kMillisecond);

struct BareHeader {
  std::int64_t id;
  double values[22];
};
struct BareProcess {
  std::int64_t snapshot, pid, parent;
  std::string name, bundle, displayName, canonicalName, groupKey;
  double drainW, share;
};
struct BareText {
  std::int64_t snapshot, pid;
  std::string first, second;
  double drainW;
};
struct BareBattery {
  std::int64_t snapshot;
  double values[22];
  std::vector<std::string> texts;
};

std::string bareText(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  if (text == nullptr) return {};
  return {reinterpret_cast<const char*>(text),
          static_cast<std::size_t>(sqlite3_column_bytes(statement, column))};
}

/// Reads the columns of the snapshots that a subquery of ids chooses.
void readBare(sqlite3* connection, const std::string& ids) {
  const auto rows = [&](const std::string& select, const std::string& order, auto take) {
    sqlite3_stmt* statement = prepareBare(connection, select + " IN (" + ids + ")" + order);
    while (sqlite3_step(statement) == SQLITE_ROW) take(statement);
    sqlite3_finalize(statement);
  };
  std::vector<BareHeader> headers;
  std::vector<BareProcess> processes;
  std::vector<BareText> flags, hidden;
  std::vector<BareBattery> batteries;
  rows("SELECT * FROM snapshots WHERE id", " ORDER BY timestamp ASC", [&](sqlite3_stmt* row) {
    BareHeader& header = headers.emplace_back();
    header.id = sqlite3_column_int64(row, 0);
    for (int column = 1; column < 23; ++column)
      header.values[column - 1] = sqlite3_column_double(row, column);
  });
  rows("SELECT * FROM process_samples WHERE snapshot_id", " ORDER BY snapshot_id DESC, drain_w DESC",
       [&](sqlite3_stmt* row) {
         processes.push_back({sqlite3_column_int64(row, 0), sqlite3_column_int64(row, 1),
                              sqlite3_column_int64(row, 2), bareText(row, 3), bareText(row, 4),
                              bareText(row, 5), bareText(row, 6), bareText(row, 7),
                              sqlite3_column_double(row, 8), sqlite3_column_double(row, 9)});
       });
  rows("SELECT * FROM process_source_flags WHERE snapshot_id", "", [&](sqlite3_stmt* row) {
    flags.push_back(
        {sqlite3_column_int64(row, 0), sqlite3_column_int64(row, 1), bareText(row, 2), bareText(row, 3), 0});
  });
  rows("SELECT * FROM hidden_drains WHERE snapshot_id", " ORDER BY snapshot_id DESC, drain_w DESC",
       [&](sqlite3_stmt* row) {
         hidden.push_back({sqlite3_column_int64(row, 0), 0, bareText(row, 1), bareText(row, 2),
                           sqlite3_column_double(row, 3)});
       });
  rows("SELECT * FROM battery_status_samples WHERE snapshot_id", "", [&](sqlite3_stmt* row) {
    BareBattery& battery = batteries.emplace_back();
    battery.snapshot = sqlite3_column_int64(row, 0);
    for (int column = 1; column < 22; ++column) {
      const bool isText = column == 16 || column == 17 || column == 21;
      if (isText) battery.texts.push_back(bareText(row, column));
      if (!isText) battery.values[column] = sqlite3_column_double(row, column);
    }
  });
  demand(!headers.empty() && !processes.empty() && !flags.empty() && !batteries.empty());
}

void readBareRepeatedly(benchmark::State& state, const std::string& ids) {
  sqlite3* connection = openBare(generatedWeek());
  for (auto _ : state) readBare(connection, ids);
  sqlite3_close(connection);
}

void boundFetchLatest(benchmark::State& state) {
  readBareRepeatedly(state, "SELECT id FROM snapshots ORDER BY timestamp DESC LIMIT 100");
}
BENCHMARK(boundFetchLatest)->Unit(benchmark::kMillisecond);

void boundFetchWindowSnapshots(benchmark::State& state) {
  readBareRepeatedly(state,
                     "SELECT id FROM (SELECT id, ROW_NUMBER() OVER (ORDER BY timestamp ASC) AS rn FROM "
                     "snapshots WHERE timestamp >= 0 AND timestamp <= 9e9) WHERE (rn - 1) % 60 = 0");
}
BENCHMARK(boundFetchWindowSnapshots)->Unit(benchmark::kMillisecond);

// Figures over the week.

/// What a person waits for: open the week, show its details.
void openAndFetchDetails(benchmark::State& state) {
  for (auto _ : state) {
    const SQLiteSnapshotStore store(generatedWeek(), Mode::readOnly);
    benchmark::DoNotOptimize(store.fetchDetailsReadModel(weekSeconds, 5, {}, {}));
  }
}
BENCHMARK(openAndFetchDetails)->Unit(benchmark::kMillisecond);

void fetchEnergyUsageSummary(benchmark::State& state) {
  const SQLiteSnapshotStore store(generatedWeek(), Mode::readOnly);
  for (auto _ : state) benchmark::DoNotOptimize(store.fetchEnergyUsageSummary(weekSnapshots));
}
BENCHMARK(fetchEnergyUsageSummary)->Unit(benchmark::kMillisecond);

void stepThrough(benchmark::State& state, const std::vector<std::string>& statements) {
  sqlite3* connection = openBare(generatedWeek());
  for (auto _ : state) {
    std::int64_t rows = 0;
    for (const std::string& sql : statements) {
      sqlite3_stmt* statement = prepareBare(connection, sql);
      for (; sqlite3_step(statement) == SQLITE_ROW; ++rows)
        benchmark::DoNotOptimize(sqlite3_column_double(statement, 0));
      sqlite3_finalize(statement);
    }
    demand(rows > 0);
  }
  sqlite3_close(connection);
}

/// The rows that the details are made of, grouped by SQLite.
void boundFetchDetails(benchmark::State& state) {
  stepThrough(state,
              {"SELECT timestamp, total_watts, battery_level_percent FROM snapshots ORDER BY timestamp",
               "SELECT snapshots.timestamp, process_group_key, MAX(canonical_name), SUM(drain_w) "
               "FROM snapshots JOIN process_samples ON snapshot_id = id "
               "GROUP BY id, process_group_key ORDER BY snapshots.timestamp, process_group_key",
               "SELECT snapshots.timestamp, kind, identifier, SUM(drain_w) FROM snapshots JOIN hidden_drains "
               "ON snapshot_id = id GROUP BY id, kind, identifier ORDER BY snapshots.timestamp"});
}
BENCHMARK(boundFetchDetails)->Unit(benchmark::kMillisecond);

/// The least that anything must do that looks at every process of the week: a pass over three columns.
void boundProcessRowScan(benchmark::State& state) {
  stepThrough(state, {"SELECT drain_w, snapshot_id, process_group_key FROM process_samples"});
}
BENCHMARK(boundProcessRowScan)->Unit(benchmark::kMillisecond);

void boundFetchEnergyUsageSummary(benchmark::State& state) {
  std::string sql = EnergyQueries::usageSummarySQL(AppConfiguration::bundleIdentifierPrefix());
  sql.replace(sql.find('?'), 1, std::to_string(weekSnapshots));
  stepThrough(state, {sql});
}
BENCHMARK(boundFetchEnergyUsageSummary)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quenzel::benchmarks
