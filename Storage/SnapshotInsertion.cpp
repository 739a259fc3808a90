#include "Storage/SnapshotInsertion.hpp"

#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <tuple>

#include <fmt/format.h>

#include "SharedModels/Runtime/Text.hpp"
#include "SharedModels/Snapshot/SnapshotQuality.hpp"
#include "Storage/Database.hpp"
#include "Storage/SnapshotColumns.hpp"
#include "Storage/SnapshotStoreError.hpp"

namespace quenzel {
namespace {

/// Two snapshots no farther apart than this are of the same moment.
constexpr double nearDuplicateSeconds = 0.5;

constexpr std::string_view selectLatestSummary =
    "SELECT id, timestamp, total_watts, process_total_w\n"
    "FROM snapshots\n"
    "ORDER BY timestamp DESC\n"
    "LIMIT 1;";

constexpr std::string_view insertSnapshot =
    "INSERT INTO snapshots (timestamp, total_watts, process_total_w, tracker_total_w, on_battery_power, "
    "battery_level_percent, pm_command_ok, pm_parsed_process_count, pm_has_package_power, "
    "pm_has_system_power, used_estimated_total_power, screen_model_available, usb_model_available, "
    "components_screen_w, components_usb_w, components_cpu_w, components_gpu_w, components_ane_w, "
    "components_ram_w, components_pci_w, components_confidence, unattributed_w)\n"
    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?);";

constexpr std::string_view insertProcess =
    "INSERT INTO process_samples (snapshot_id, pid, parent_pid, process_name, bundle_id, display_name, "
    "canonical_name, process_group_key, drain_w, energy_share)\n"
    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?);";

constexpr std::string_view insertSourceFlag =
    "INSERT INTO process_source_flags (snapshot_id, pid, process_name, source_flag)\n"
    "VALUES (?, ?, ?, ?);";

constexpr std::string_view insertHidden =
    "INSERT INTO hidden_drains (snapshot_id, kind, identifier, drain_w)\n"
    "VALUES (?, ?, ?, ?);";

constexpr std::string_view insertBattery =
    "INSERT INTO battery_status_samples (snapshot_id, level_percent, remaining_wh, is_charging, "
    "external_power_connected, system_time_remaining_minutes, discharge_watts, cycle_count, voltage_mv, "
    "amperage_ma, temperature_centi_c, design_capacity_mah, max_capacity_mah, current_capacity_mah, "
    "nominal_charge_capacity_mah, design_cycle_count, serial_number, device_name, fully_charged, "
    "is_ac_powered, adapter_watts, adapter_name)\n"
    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?);";

constexpr std::string_view deleteByID = "DELETE FROM snapshots WHERE id = ?;";

std::string_view trimmedOrEmpty(const std::optional<std::string>& text) {
  return text ? trimmed(*text) : std::string_view();
}

bool isOwnProcess(const ProcessDrain& process, std::string_view ownBundlePrefix) {
  const std::string text = lowercased(process.name + " " + process.bundleID.value_or(""));
  return text.find("quenzel") != std::string::npos ||
         text.find("batterymetricsdaemon") != std::string::npos ||
         text.find(ownBundlePrefix) != std::string::npos;
}

double ownProcessW(const DrainSnapshot& snapshot, std::string_view ownBundlePrefix) {
  double sum = 0;
  for (const ProcessDrain& process : snapshot.processes) {
    if (process.drainW > 0 && isOwnProcess(process, ownBundlePrefix)) sum += process.drainW;
  }
  return sum;
}

/// The members of an absent record are all absent.
template <typename Record, typename Member>
auto memberOf(const std::optional<Record>& record, Member Record::*member) {
  return record ? std::optional(*record.*member) : std::nullopt;
}

std::int64_t insertHeader(Database& database, const DrainSnapshot& snapshot,
                          std::string_view ownBundlePrefix) {
  const auto bindAll = [&](const auto&... values) { database.prepared(insertSnapshot).run(values...); };
  const auto telemetry =
      std::apply([&](auto... members) { return std::tuple{memberOf(snapshot.telemetry, members)...}; },
                 telemetryColumns);
  const auto components = std::apply(
      [&](auto... members) { return std::tuple{snapshot.components.*members...}; }, componentColumns);
  const std::optional<double> level =
      snapshot.powerContext ? snapshot.powerContext->batteryLevelPercent : std::nullopt;
  std::apply(
      bindAll,
      std::tuple_cat(std::tuple{snapshot.timestamp.secondsSince1970(), snapshot.totalDischargeW,
                                attributedProcessW(snapshot), ownProcessW(snapshot, ownBundlePrefix),
                                memberOf(snapshot.powerContext, &PowerUsageContext::onBatteryPower), level},
                     telemetry, components, std::tuple{snapshot.unattributedW}));
  return database.lastInsertRowID();
}

/// The column takes process numbers, which have 32 bits everywhere.
std::int64_t processNumber(std::int64_t pid, const ProcessDrain& process) {
  using Limits = std::numeric_limits<std::int32_t>;
  if (pid < Limits::min() || pid > Limits::max()) {
    throw SnapshotStoreError::withMessage(
        fmt::format("Process number {} out of range for published process row: {}", pid, process.name));
  }
  return pid;
}

void insertProcesses(Database& database, std::int64_t snapshotID, const DrainSnapshot& snapshot) {
  Statement insertRow = database.prepared(insertProcess);
  Statement insertFlag = database.prepared(insertSourceFlag);
  for (const ProcessDrain& process : snapshot.processes) {
    const std::int64_t pid = processNumber(process.pid, process);
    std::optional<std::int64_t> parent = process.parentPID;
    if (parent) parent = processNumber(*parent, process);
    insertRow.run(snapshotID, pid, parent, process.name, process.bundleID,
                  trimmedOrEmpty(process.displayName), trimmedOrEmpty(process.canonicalName),
                  trimmedOrEmpty(process.processGroupKey), process.drainW, process.energyShare);
    for (const std::string& flag : process.sourceFlags) insertFlag.run(snapshotID, pid, process.name, flag);
  }
}

void insertHiddenDrains(Database& database, std::int64_t snapshotID, const DrainSnapshot& snapshot) {
  Statement insert = database.prepared(insertHidden);
  for (const HiddenDrain& hidden : snapshot.hidden)
    insert.run(snapshotID, rawValue(hidden.kind), hidden.identifier, hidden.drainW);
}

void insertBatteryStatus(Database& database, std::int64_t snapshotID, const BatteryStatusSample& battery) {
  std::apply([&](auto... members) { database.prepared(insertBattery).run(snapshotID, battery.*members...); },
             batteryColumns);
}

/// A number that is none at all is left to the table's own constraints.
void demandBelievable(double value, std::string_view what) {
  constexpr double most = 1e12;  // a terawatt, or thirty thousand years
  if (std::abs(value) > most)
    throw SnapshotStoreError::withMessage(fmt::format("{} out of range: {}", what, value));
}

}  // namespace

void SnapshotInsertion::validate(const DrainSnapshot& snapshot) {
  struct RequiredColumn {
    const char* name;
    std::optional<std::string> ProcessDrain::*member;
  };
  constexpr RequiredColumn required[] = {{"display_name", &ProcessDrain::displayName},
                                         {"canonical_name", &ProcessDrain::canonicalName},
                                         {"process_group_key", &ProcessDrain::processGroupKey}};
  for (const ProcessDrain& process : snapshot.processes) {
    for (const RequiredColumn& column : required) {
      if (!trimmedOrEmpty(process.*column.member).empty()) continue;
      throw SnapshotStoreError::withMessage(
          fmt::format("Missing {} for published process row: {}", column.name, process.name));
    }
  }
  demandBelievable(snapshot.timestamp.secondsSince1970(), "timestamp");
  demandBelievable(snapshot.totalDischargeW, "total_watts");
  demandBelievable(snapshot.unattributedW, "unattributed_w");
  const ComponentDrain& part = snapshot.components;
  for (const double watts : {part.screenW, part.usbW, part.cpuW, part.gpuW, part.aneW, part.ramW, part.pciW})
    demandBelievable(watts, "component watts");
  for (const ProcessDrain& process : snapshot.processes) demandBelievable(process.drainW, "drain_w");
  for (const HiddenDrain& hidden : snapshot.hidden) demandBelievable(hidden.drainW, "drain_w");
}

SnapshotInsertion::Decision SnapshotInsertion::decide(Database& database, const DrainSnapshot& snapshot) {
  using Kind = Decision::Kind;
  Statement latest = database.prepared(selectLatestSummary);
  if (!latest.next()) return {};
  const auto [id, timestamp, totalW, processW] = latest.row<std::int64_t, double, double, double>();
  if (std::abs(snapshot.timestamp.secondsSince1970() - timestamp) > nearDuplicateSeconds) return {};
  const bool isNoWorse = snapshotQuality(totalW, processW) <= snapshotQuality(snapshot);
  return {isNoWorse ? Kind::replace : Kind::drop, id};
}

void SnapshotInsertion::writeRows(Database& database, const DrainSnapshot& snapshot,
                                  std::string_view ownBundlePrefix) {
  const std::int64_t id = insertHeader(database, snapshot, ownBundlePrefix);
  insertProcesses(database, id, snapshot);
  insertHiddenDrains(database, id, snapshot);
  if (snapshot.batteryStatus) insertBatteryStatus(database, id, *snapshot.batteryStatus);
}

void SnapshotInsertion::deleteSnapshot(Database& database, std::int64_t id) {
  database.prepared(deleteByID).run(id);
}

}  // namespace quenzel
