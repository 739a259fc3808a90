#include "Storage/SnapshotInsertion.hpp"

#include <cmath>
#include <optional>
#include <string>
#include <tuple>

#include "Base/Text.hpp"
#include "SharedModels/Snapshot/SnapshotQuality.hpp"
#include "Storage/Database.hpp"

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

SnapshotHeaderRow headerOf(const DrainSnapshot& snapshot, std::string_view ownBundlePrefix) {
  SnapshotHeaderRow row;
  row.timestamp = snapshot.timestamp.secondsSince1970();
  row.totalWatts = snapshot.totalDischargeW;
  row.processTotalW = attributedProcessW(snapshot);
  row.trackerTotalW = ownProcessW(snapshot, ownBundlePrefix);
  if (const auto& context = snapshot.powerContext) {
    row.onBatteryPower = context->onBatteryPower;
    row.batteryLevelPercent = context->batteryLevelPercent;
  }
  if (const auto& telemetry = snapshot.telemetry) {
    row.pmCommandOK = telemetry->powermetricsCommandOK;
    row.pmParsedProcessCount = telemetry->powermetricsParsedProcessCount;
    row.pmHasPackagePower = telemetry->powermetricsHasPackagePower;
    row.pmHasSystemPower = telemetry->powermetricsHasSystemPower;
    row.usedEstimatedTotalPower = telemetry->usedEstimatedTotalPower;
    row.screenModelAvailable = telemetry->screenModelAvailable;
    row.usbModelAvailable = telemetry->usbModelAvailable;
  }
  row.componentsScreenW = snapshot.components.screenW;
  row.componentsUsbW = snapshot.components.usbW;
  row.componentsCPUW = snapshot.components.cpuW;
  row.componentsGPUW = snapshot.components.gpuW;
  row.componentsANEW = snapshot.components.aneW;
  row.componentsRAMW = snapshot.components.ramW;
  row.componentsPCIW = snapshot.components.pciW;
  row.componentsConfidence = snapshot.components.confidence;
  row.unattributedW = snapshot.unattributedW;
  return row;
}

std::int64_t insertHeader(Database& database, const SnapshotHeaderRow& row) {
  std::apply([&](auto /*id*/, auto... members) { database.prepared(insertSnapshot).run(row.*members...); },
             headerColumns);
  return database.lastInsertRowID();
}

void insertProcesses(Database& database, std::int64_t snapshotID, const DrainSnapshot& snapshot) {
  Statement insertRow = database.prepared(insertProcess);
  Statement insertFlag = database.prepared(insertSourceFlag);
  for (const ProcessDrain& process : snapshot.processes) {
    insertRow.run(snapshotID, process.pid, process.parentPID, process.name, process.bundleID,
                  trimmedOrEmpty(process.displayName), trimmedOrEmpty(process.canonicalName),
                  trimmedOrEmpty(process.processGroupKey), process.drainW, process.energyShare);
    for (const std::string& flag : process.sourceFlags)
      insertFlag.run(snapshotID, process.pid, process.name, flag);
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

}  // namespace

std::optional<LatestSnapshotSummaryRow> SnapshotInsertion::latestSummary(Database& database) {
  Statement latest = database.prepared(selectLatestSummary);
  if (!latest.next()) return {};
  return recordOf(latest, latestSummaryColumns);
}

SnapshotInsertion::Decision SnapshotInsertion::decide(Database& database, const DrainSnapshot& snapshot) {
  using Kind = Decision::Kind;
  const auto latest = latestSummary(database);
  if (!latest) return {};
  if (std::abs(snapshot.timestamp.secondsSince1970() - latest->timestamp) > nearDuplicateSeconds) return {};
  const bool isNoWorse =
      snapshotQuality(latest->totalWatts, latest->processTotalW) <= snapshotQuality(snapshot);
  return {isNoWorse ? Kind::replace : Kind::drop, latest->id};
}

void SnapshotInsertion::writeRows(Database& database, const DrainSnapshot& snapshot,
                                  std::string_view ownBundlePrefix) {
  const std::int64_t id = insertHeader(database, headerOf(snapshot, ownBundlePrefix));
  insertProcesses(database, id, snapshot);
  insertHiddenDrains(database, id, snapshot);
  if (snapshot.batteryStatus) insertBatteryStatus(database, id, *snapshot.batteryStatus);
}

void SnapshotInsertion::deleteSnapshot(Database& database, std::int64_t id) {
  database.prepared(deleteByID).run(id);
}

}  // namespace quenzel
