#include "Benchmarks/GeneratedHistory.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>

#include "SharedModels/Snapshot/SnapshotQuality.hpp"
#include "Storage/Database.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"
#include "Storage/SnapshotInsertion.hpp"

namespace quenzel::benchmarks {
namespace {

ProcessDrain generatedProcess(std::int64_t index, std::int64_t row) {
  // A third of the rows are helpers of the ten applications before them; pids move on every 1,000 snapshots,
  // as programs are started anew.
  const std::int64_t application = row % 3 == 0 ? row % 10 : row;
  ProcessDrain process;
  process.pid = 300 + row + 200 * (index / 1000);
  process.parentPID = 1 + application;
  process.name =
      fmt::format("/Applications/Application {0}.app/Contents/MacOS/Program {1}", application, row);
  process.bundleID = fmt::format("com.example.application{}", application);
  process.displayName = fmt::format("Program {}", row);
  process.canonicalName = fmt::format("Application {}", application);
  process.processGroupKey = fmt::format("bundle:com.example.application{}", application);
  process.drainW = 0.01 * static_cast<double>((index * 7 + row * 13) % 50);
  process.energyShare = process.drainW / 30;
  process.sourceFlags = {"powermetrics"};
  return process;
}

void generate(const std::string& path) {
  std::fprintf(stderr, "making %s: %lld snapshots of %lld processes\n", path.c_str(),
               static_cast<long long>(weekSnapshots), static_cast<long long>(weekProcesses));
  const std::string unfinished = path + ".unfinished";
  std::filesystem::remove(unfinished);
  { const SQLiteSnapshotStore makesTheTables(unfinished, SQLiteSnapshotStore::Mode::readWriteCreate); }
  {
    Database database(unfinished, Database::Access::readWriteCreate);
    database.execute("PRAGMA journal_mode = OFF;");  // nothing is to be kept if this fails
    database.execute("PRAGMA synchronous = OFF;");
    database.execute("PRAGMA cache_size = -400000;");
    WriteTransaction transaction(database);
    for (std::int64_t index = 0; index < weekSnapshots; ++index)
      SnapshotInsertion::writeRows(database, generatedSnapshot(index, weekProcesses), "com.quenzel");
    transaction.commit();
    database.execute("PRAGMA journal_mode = WAL;");
  }
  std::filesystem::rename(unfinished, path);
}

}  // namespace

DrainSnapshot generatedSnapshot(std::int64_t index, std::int64_t processes) {
  constexpr double start = 785'000'000;  // seconds since 2001: in November 2025
  DrainSnapshot snapshot;
  snapshot.timestamp = {start + 20.0 * static_cast<double>(index)};
  for (std::int64_t row = 0; row < processes; ++row)
    snapshot.processes.push_back(generatedProcess(index, row));
  if (index % 8 == 0) snapshot.hidden.push_back({HiddenDrainKind::dockerContainer, "web", 0.25});
  snapshot.components = {.screenW = 2.5, .usbW = 0.25, .cpuW = 4, .gpuW = 1, .confidence = 0.75};
  snapshot.unattributedW = 1.5;
  snapshot.totalDischargeW = attributedProcessW(snapshot) + 2.5 + 0.25 + snapshot.unattributedW +
                             (snapshot.hidden.empty() ? 0 : 0.25);
  snapshot.telemetry = {true, processes, true, false, false, true, true};
  const double level = 100 - static_cast<double>(index % 1800) / 20;
  snapshot.powerContext = {index % 3600 < 1800, level};
  snapshot.batteryStatus = BatteryStatusSample{.levelPercent = level, .cycleCount = 120, .voltageMV = 12300};
  return snapshot;
}

const std::string& generatedWeek() {
  static const std::string path = [] {
    std::string file = "generated-week.sqlite";
    if (!std::filesystem::exists(file)) generate(file);
    return file;
  }();
  return path;
}

}  // namespace quenzel::benchmarks
