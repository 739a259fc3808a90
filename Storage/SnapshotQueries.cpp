#include "Storage/SnapshotQueries.hpp"

#include <algorithm>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

#include <fmt/format.h>

#include "Storage/Database.hpp"
#include "Storage/SnapshotRows.hpp"

namespace quenzel {
namespace {

/// The statements that read a set of snapshots and their rows, the set being a subquery of ids. Each takes
/// the subquery's parameters. Rows that compare equal come in the order in which they were stored, so that an
/// export that is imported elsewhere reads the same there.
struct SelectionSQL {
  explicit SelectionSQL(std::string_view ids)
      : headers(fmt::format(
            "SELECT id, timestamp, total_watts, process_total_w, tracker_total_w, on_battery_power, "
            "battery_level_percent, pm_command_ok, pm_parsed_process_count, pm_has_package_power, "
            "pm_has_system_power, used_estimated_total_power, screen_model_available, usb_model_available, "
            "components_screen_w, components_usb_w, components_cpu_w, components_gpu_w, components_ane_w, "
            "components_ram_w, components_pci_w, components_confidence, unattributed_w\n"
            "FROM snapshots\n"
            "WHERE id IN ({})\n"
            "ORDER BY timestamp ASC, id ASC;",
            ids)),
        processes(fmt::format(
            "SELECT snapshot_id, pid, parent_pid, process_name, bundle_id, display_name, canonical_name, "
            "process_group_key, drain_w, energy_share\n"
            "FROM process_samples\n"
            "WHERE snapshot_id IN ({})\n"
            "ORDER BY snapshot_id DESC, drain_w DESC, rowid ASC;",
            ids)),
        sourceFlags(fmt::format("SELECT snapshot_id, pid, process_name, source_flag\n"
                                "FROM process_source_flags\n"
                                "WHERE snapshot_id IN ({});",
                                ids)),
        hidden(fmt::format("SELECT snapshot_id, kind, identifier, drain_w\n"
                           "FROM hidden_drains\n"
                           "WHERE snapshot_id IN ({})\n"
                           "ORDER BY snapshot_id DESC, drain_w DESC, rowid ASC;",
                           ids)),
        battery(fmt::format(
            "SELECT snapshot_id, level_percent, remaining_wh, is_charging, external_power_connected, "
            "system_time_remaining_minutes, discharge_watts, cycle_count, voltage_mv, amperage_ma, "
            "temperature_centi_c, design_capacity_mah, max_capacity_mah, current_capacity_mah, "
            "nominal_charge_capacity_mah, design_cycle_count, serial_number, device_name, fully_charged, "
            "is_ac_powered, adapter_watts, adapter_name\n"
            "FROM battery_status_samples\n"
            "WHERE snapshot_id IN ({});",
            ids)) {}

  const std::string headers;
  const std::string processes;
  const std::string sourceFlags;
  const std::string hidden;
  const std::string battery;
};

const SelectionSQL& latestSelection() {
  static const SelectionSQL sql("SELECT id FROM snapshots ORDER BY timestamp DESC LIMIT ?");
  return sql;
}

const SelectionSQL& singleSelection() {
  static const SelectionSQL sql("SELECT id FROM snapshots WHERE id = ? LIMIT 1");
  return sql;
}

const SelectionSQL& thinnedSelection() {
  static const SelectionSQL sql(
      "SELECT id FROM (\n"
      "SELECT id, ROW_NUMBER() OVER (ORDER BY timestamp ASC) AS rn\n"
      "FROM snapshots\n"
      "WHERE timestamp >= ?1 AND timestamp <= ?2\n"
      ") WHERE (rn - 1) % ?3 = 0");
  return sql;
}

const SelectionSQL& newestSelection() {
  static const SelectionSQL sql(
      "SELECT id FROM snapshots WHERE timestamp >= ? AND timestamp <= ? "
      "ORDER BY timestamp DESC LIMIT 1");
  return sql;
}

/// All seven columns of the telemetry, or none of it.
std::optional<SourceTelemetry> telemetryOf(const SnapshotHeaderRow& row) {
  if (!row.pmCommandOK || !row.pmParsedProcessCount || !row.pmHasPackagePower || !row.pmHasSystemPower ||
      !row.usedEstimatedTotalPower || !row.screenModelAvailable || !row.usbModelAvailable)
    return {};
  return SourceTelemetry{.powermetricsCommandOK = *row.pmCommandOK,
                         .powermetricsParsedProcessCount = *row.pmParsedProcessCount,
                         .powermetricsHasPackagePower = *row.pmHasPackagePower,
                         .powermetricsHasSystemPower = *row.pmHasSystemPower,
                         .usedEstimatedTotalPower = *row.usedEstimatedTotalPower,
                         .screenModelAvailable = *row.screenModelAvailable,
                         .usbModelAvailable = *row.usbModelAvailable};
}

DrainSnapshot snapshotOf(const SnapshotHeaderRow& row) {
  DrainSnapshot snapshot{.timestamp = PointInTime::fromSecondsSince1970(row.timestamp),
                         .totalDischargeW = row.totalWatts,
                         .components = {.screenW = row.componentsScreenW,
                                        .usbW = row.componentsUsbW,
                                        .cpuW = row.componentsCPUW,
                                        .gpuW = row.componentsGPUW,
                                        .aneW = row.componentsANEW,
                                        .ramW = row.componentsRAMW,
                                        .pciW = row.componentsPCIW,
                                        .confidence = row.componentsConfidence},
                         .unattributedW = row.unattributedW,
                         .telemetry = telemetryOf(row)};
  if (row.onBatteryPower) snapshot.powerContext = {*row.onBatteryPower, row.batteryLevelPercent};
  return snapshot;
}

ProcessDrain processOfRow(const Statement& row) {
  ProcessDrain process;
  process.pid = row.column<std::int64_t>(1);
  process.parentPID = row.column<std::optional<std::int64_t>>(2);
  process.name = row.column<std::string>(3);
  process.bundleID = row.column<std::optional<std::string>>(4);
  process.displayName = row.column<std::optional<std::string>>(5);
  process.canonicalName = row.column<std::optional<std::string>>(6);
  process.processGroupKey = row.column<std::optional<std::string>>(7);
  process.drainW = row.column<double>(8);
  process.energyShare = row.column<double>(9);
  return process;
}

/// Finds the process row that a source flag belongs to. Flags come in the order of their rows' keys, so that
/// most belong to the row of the one before. Rows are sorted by PID and name, so that even thousands of one
/// PID are found in logarithmic time.
class ProcessRowIndex {
 public:
  explicit ProcessRowIndex(std::vector<ProcessDrain>& rows) {
    rows_.reserve(rows.size());
    for (ProcessDrain& row : rows) rows_.emplace_back(row.pid, row.name, &row);
    std::sort(rows_.begin(), rows_.end());
  }

  ProcessDrain* find(std::int64_t pid, std::string_view name) {
    if (last_ != nullptr && last_->pid == pid && last_->name == name) return last_;
    const auto entry = std::lower_bound(rows_.begin(), rows_.end(), Entry(pid, name, nullptr));
    if (entry == rows_.end() || std::get<0>(*entry) != pid || std::get<1>(*entry) != name) return nullptr;
    return last_ = std::get<2>(*entry);
  }

 private:
  using Entry = std::tuple<std::int64_t, std::string_view, ProcessDrain*>;

  std::vector<Entry> rows_;
  ProcessDrain* last_ = nullptr;
};

/// Reads a set of snapshots and hangs the rows of the child tables onto them.
class SnapshotReader {
 public:
  template <typename... Parameters>
  static std::vector<DrainSnapshot> read(Database& database, const SelectionSQL& sql,
                                         const Parameters&... parameters) {
    SnapshotReader reader;
    const auto eachRow = [&](const std::string& text, auto&& take) {
      Statement rows = database.prepared(text);
      rows.bind(parameters...);
      while (rows.next()) take(rows);
    };
    eachRow(sql.headers, [&](const Statement& row) { reader.addHeader(row); });
    if (reader.snapshots_.empty()) return {};
    const auto eachChild = [&](const std::string& text, auto&& take) {
      eachRow(text, [&](const Statement& row) {
        if (DrainSnapshot* snapshot = reader.find(row.column<std::int64_t>(0))) take(*snapshot, row);
      });
    };
    eachChild(sql.processes, [](DrainSnapshot& snapshot, const Statement& row) {
      snapshot.processes.push_back(processOfRow(row));
    });
    reader.indices_.resize(reader.snapshots_.size());
    eachChild(sql.sourceFlags, [&](DrainSnapshot& snapshot, const Statement& row) {
      ProcessRowIndex& index = reader.indexOf(snapshot);
      if (ProcessDrain* process = index.find(row.column<std::int64_t>(1), row.column<std::string_view>(2)))
        process->sourceFlags.push_back(row.column<std::string>(3));
    });
    eachChild(sql.hidden, [](DrainSnapshot& snapshot, const Statement& row) {
      // A kind that a newer version may know has no place in this version's records.
      if (const auto kind = hiddenDrainKind(row.column<std::string_view>(1)))
        snapshot.hidden.push_back({*kind, row.column<std::string>(2), row.column<double>(3)});
    });
    eachChild(sql.battery, [](DrainSnapshot& snapshot, const Statement& row) {
      snapshot.batteryStatus = recordOf(row, batteryColumns, 1);
    });
    return std::move(reader.snapshots_);
  }

 private:
  void addHeader(const Statement& row) {
    const SnapshotHeaderRow header = recordOf(row, headerColumns);
    positions_.emplace(header.id, snapshots_.size());
    snapshots_.push_back(snapshotOf(header));
  }

  /// The rows of one snapshot come one after another.
  DrainSnapshot* find(std::int64_t id) {
    if (last_ != nullptr && id == lastID_) return last_;
    const auto position = positions_.find(id);
    if (position == positions_.end()) return nullptr;
    lastID_ = id;
    return last_ = &snapshots_[position->second];
  }

  ProcessRowIndex& indexOf(DrainSnapshot& snapshot) {
    auto& index = indices_[static_cast<std::size_t>(&snapshot - snapshots_.data())];
    return index ? *index : index.emplace(snapshot.processes);
  }

  std::vector<DrainSnapshot> snapshots_;
  std::unordered_map<std::int64_t, std::size_t> positions_;
  std::vector<std::optional<ProcessRowIndex>> indices_;
  std::int64_t lastID_ = 0;
  DrainSnapshot* last_ = nullptr;
};

constexpr std::string_view selectNewestTimestamp =
    "SELECT timestamp FROM snapshots ORDER BY timestamp DESC LIMIT 1;";

constexpr std::string_view selectIDs = "SELECT id FROM snapshots ORDER BY timestamp ASC, id ASC;";

constexpr std::string_view selectCount =
    "SELECT COUNT(*) FROM snapshots WHERE timestamp >= ? AND timestamp <= ?;";

}  // namespace

std::vector<DrainSnapshot> SnapshotQueries::latest(Database& database, std::int64_t limit) {
  if (limit < 1) return {};  // SQLite would take a negative limit for none at all
  return SnapshotReader::read(database, latestSelection(), limit);
}

std::optional<DrainSnapshot> SnapshotQueries::withID(Database& database, std::int64_t id) {
  auto found = SnapshotReader::read(database, singleSelection(), id);
  if (found.empty()) return {};
  return std::move(found.front());
}

std::vector<DrainSnapshot> SnapshotQueries::thinned(Database& database, PointInTime cutoff,
                                                    PointInTime anchor, std::int64_t stride) {
  return SnapshotReader::read(database, thinnedSelection(), cutoff.secondsSince1970(),
                              anchor.secondsSince1970(), stride);
}

std::vector<std::int64_t> SnapshotQueries::ids(Database& database) {
  std::vector<std::int64_t> ids;
  Statement select = database.prepared(selectIDs);
  while (select.next()) ids.push_back(select.column<std::int64_t>(0));
  return ids;
}

std::optional<PointInTime> SnapshotQueries::newestTimestamp(Database& database) {
  Statement select = database.prepared(selectNewestTimestamp);
  if (!select.next()) return {};
  return PointInTime::fromSecondsSince1970(select.column<double>(0));
}

std::int64_t SnapshotQueries::count(Database& database, PointInTime cutoff, PointInTime anchor) {
  Statement select = database.prepared(selectCount);
  select.bind(cutoff.secondsSince1970(), anchor.secondsSince1970());
  return select.next() ? select.column<std::int64_t>(0) : 0;
}

std::optional<DrainSnapshot> SnapshotQueries::newest(Database& database, PointInTime cutoff,
                                                     PointInTime anchor) {
  auto found =
      SnapshotReader::read(database, newestSelection(), cutoff.secondsSince1970(), anchor.secondsSince1970());
  if (found.empty()) return {};
  return std::move(found.front());
}

}  // namespace quenzel
