#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>

#include "SharedModels/Snapshot/BatteryStatusSample.hpp"
#include "SharedModels/Snapshot/HiddenWorkloadMapping.hpp"
#include "Storage/Statement.hpp"

namespace quenzel {

// The rows that are read of the history, field by field as they stand in the database: times are seconds
// since 1970, an absent optional is NULL.

/// What the rule against near duplicates asks of the newest snapshot.
struct LatestSnapshotSummaryRow {
  std::int64_t id = 0;
  double timestamp = 0;
  double totalWatts = 0;
  double processTotalW = 0;
};

/// A row of "snapshots", whole.
struct SnapshotHeaderRow {
  std::int64_t id = 0;
  double timestamp = 0;
  double totalWatts = 0;
  double processTotalW = 0;
  double trackerTotalW = 0;
  std::optional<bool> onBatteryPower = {};  ///< absent without a power context
  std::optional<double> batteryLevelPercent = {};
  // Absent, all of them, without telemetry.
  std::optional<bool> pmCommandOK = {};
  std::optional<std::int64_t> pmParsedProcessCount = {};
  std::optional<bool> pmHasPackagePower = {};
  std::optional<bool> pmHasSystemPower = {};
  std::optional<bool> usedEstimatedTotalPower = {};
  std::optional<bool> screenModelAvailable = {};
  std::optional<bool> usbModelAvailable = {};
  double componentsScreenW = 0;
  double componentsUsbW = 0;
  double componentsCPUW = 0;
  double componentsGPUW = 0;
  double componentsANEW = 0;
  double componentsRAMW = 0;
  double componentsPCIW = 0;
  std::optional<double> componentsConfidence = {};
  double unattributedW = 0;
};

/// What the details of a window need of each of its snapshots.
struct WindowSnapshotRow {
  std::int64_t id = 0;
  double timestamp = 0;
  double totalWatts = 0;
  double processTotalW = 0;
  double trackerTotalW = 0;
  std::optional<bool> onBatteryPower = {};
  std::optional<double> batteryLevelPercent = {};  ///< the power context's
  double componentsScreenW = 0;
  double componentsUsbW = 0;
  double unattributedW = 0;
  std::optional<double> levelPercent = {};  ///< the battery reading's
};

/// What the processes of one group drew in one snapshot.
struct GroupedProcessWindowRow {
  std::int64_t snapshotID = 0;
  double timestamp = 0;
  std::string processGroupKey = {};
  std::string canonicalName = {};  ///< of its rows' names the last in order
  double drainW = 0;
};

/// What one hidden workload drew in one snapshot.
struct GroupedHiddenWindowRow {
  std::int64_t snapshotID = 0;
  double timestamp = 0;
  std::string kind = {};
  std::string identifier = {};
  double drainW = 0;
};

// The members in the order of their columns.

inline constexpr std::tuple latestSummaryColumns{
    &LatestSnapshotSummaryRow::id,
    &LatestSnapshotSummaryRow::timestamp,
    &LatestSnapshotSummaryRow::totalWatts,
    &LatestSnapshotSummaryRow::processTotalW,
};

inline constexpr std::tuple headerColumns{
    &SnapshotHeaderRow::id,
    &SnapshotHeaderRow::timestamp,
    &SnapshotHeaderRow::totalWatts,
    &SnapshotHeaderRow::processTotalW,
    &SnapshotHeaderRow::trackerTotalW,
    &SnapshotHeaderRow::onBatteryPower,
    &SnapshotHeaderRow::batteryLevelPercent,
    &SnapshotHeaderRow::pmCommandOK,
    &SnapshotHeaderRow::pmParsedProcessCount,
    &SnapshotHeaderRow::pmHasPackagePower,
    &SnapshotHeaderRow::pmHasSystemPower,
    &SnapshotHeaderRow::usedEstimatedTotalPower,
    &SnapshotHeaderRow::screenModelAvailable,
    &SnapshotHeaderRow::usbModelAvailable,
    &SnapshotHeaderRow::componentsScreenW,
    &SnapshotHeaderRow::componentsUsbW,
    &SnapshotHeaderRow::componentsCPUW,
    &SnapshotHeaderRow::componentsGPUW,
    &SnapshotHeaderRow::componentsANEW,
    &SnapshotHeaderRow::componentsRAMW,
    &SnapshotHeaderRow::componentsPCIW,
    &SnapshotHeaderRow::componentsConfidence,
    &SnapshotHeaderRow::unattributedW,
};

inline constexpr std::tuple windowColumns{
    &WindowSnapshotRow::id,
    &WindowSnapshotRow::timestamp,
    &WindowSnapshotRow::totalWatts,
    &WindowSnapshotRow::processTotalW,
    &WindowSnapshotRow::trackerTotalW,
    &WindowSnapshotRow::onBatteryPower,
    &WindowSnapshotRow::batteryLevelPercent,
    &WindowSnapshotRow::componentsScreenW,
    &WindowSnapshotRow::componentsUsbW,
    &WindowSnapshotRow::unattributedW,
    &WindowSnapshotRow::levelPercent,
};

inline constexpr std::tuple groupedProcessColumns{
    &GroupedProcessWindowRow::snapshotID,      &GroupedProcessWindowRow::timestamp,
    &GroupedProcessWindowRow::processGroupKey, &GroupedProcessWindowRow::canonicalName,
    &GroupedProcessWindowRow::drainW,
};

inline constexpr std::tuple groupedHiddenColumns{
    &GroupedHiddenWindowRow::snapshotID, &GroupedHiddenWindowRow::timestamp, &GroupedHiddenWindowRow::kind,
    &GroupedHiddenWindowRow::identifier, &GroupedHiddenWindowRow::drainW,
};

/// Behind the snapshot's id.
inline constexpr std::tuple batteryColumns{
    &BatteryStatusSample::levelPercent,
    &BatteryStatusSample::remainingWh,
    &BatteryStatusSample::isCharging,
    &BatteryStatusSample::externalPowerConnected,
    &BatteryStatusSample::systemTimeRemainingMinutes,
    &BatteryStatusSample::dischargeWatts,
    &BatteryStatusSample::cycleCount,
    &BatteryStatusSample::voltageMV,
    &BatteryStatusSample::amperageMa,
    &BatteryStatusSample::temperatureCentiC,
    &BatteryStatusSample::designCapacityMah,
    &BatteryStatusSample::maxCapacityMah,
    &BatteryStatusSample::currentCapacityMah,
    &BatteryStatusSample::nominalChargeCapacityMah,
    &BatteryStatusSample::designCycleCount,
    &BatteryStatusSample::serialNumber,
    &BatteryStatusSample::deviceName,
    &BatteryStatusSample::fullyCharged,
    &BatteryStatusSample::isACPowered,
    &BatteryStatusSample::adapterWatts,
    &BatteryStatusSample::adapterName,
};

/// The current row's columns from `first` on as a record of the members that they fill.
template <typename Record, typename... Members>
Record recordOf(const Statement& row, const std::tuple<Members Record::*...>& columns, int first = 0) {
  Record record;
  std::apply([&](auto... member) { ((record.*member = row.column<Members>(first++)), ...); }, columns);
  return record;
}

}  // namespace quenzel
