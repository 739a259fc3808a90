#include "Storage/EnergyQueries.hpp"

#include <algorithm>
#include <limits>
#include <tuple>

#include <fmt/format.h>

#include "Storage/Database.hpp"
#include "Storage/SnapshotRows.hpp"

namespace quenzel {
namespace {

/// A text as an SQL literal: the one way to have a quote inside is to double it.
std::string quoted(std::string_view text) {
  std::string literal = "'";
  for (const char character : text) literal.append(character == '\'' ? 2 : 1, character);
  return literal + "'";
}

constexpr std::string_view selectUsageSummary = R"(
WITH recent AS (
  SELECT id, timestamp, total_watts, on_battery_power
  FROM snapshots
  ORDER BY timestamp DESC
  LIMIT ?
), tracker AS (
  SELECT snapshot_id, SUM(CASE WHEN drain_w > 0 THEN drain_w ELSE 0 END) AS tracker_w
  FROM (
    SELECT snapshot_id, drain_w, lower(process_name || ' ' || COALESCE(bundle_id, '')) AS identity
    FROM process_samples
    WHERE snapshot_id IN (SELECT id FROM recent)
  )
  WHERE instr(identity, 'quenzel') > 0
     OR instr(identity, 'batterymetricsdaemon') > 0
     OR instr(identity, {}) > 0
  GROUP BY snapshot_id
), ordered AS (
  SELECT timestamp, total_watts, on_battery_power, COALESCE(tracker_w, 0) AS tracker_w,
    LAG(timestamp) OVER earlier AS previous_timestamp,
    LAG(total_watts) OVER earlier AS previous_total_watts,
    LAG(on_battery_power) OVER earlier AS previous_on_battery_power,
    LAG(COALESCE(tracker_w, 0)) OVER earlier AS previous_tracker_w
  FROM recent
  LEFT JOIN tracker ON tracker.snapshot_id = recent.id
  WINDOW earlier AS (ORDER BY timestamp ASC)
), slices AS (
  SELECT timestamp,
    CASE WHEN timestamp > previous_timestamp
      THEN MIN(timestamp - previous_timestamp, 60.0) / 3600.0 ELSE 0 END AS hours,
    MAX(0, (previous_total_watts + total_watts) * 0.5) AS average_w,
    MAX(0, (previous_tracker_w + tracker_w) * 0.5) AS average_tracker_w,
    COALESCE(on_battery_power, previous_on_battery_power, 0) AS on_battery
  FROM ordered
)
SELECT
  COALESCE(SUM(hours * average_w), 0) AS total_wh,
  COALESCE(SUM(CASE WHEN on_battery <> 0 THEN hours * average_w ELSE 0 END), 0) AS battery_wh,
  COALESCE((MAX(timestamp) - MIN(timestamp)) / 3600.0, 0) AS tracked_hours,
  COALESCE(SUM(hours * average_tracker_w), 0) AS tracker_wh
FROM slices;
)";

// A LAG of each column would cost three times as much as looking the earlier snapshot up by its id.
constexpr std::string_view selectWindowSummary = R"(
WITH ordered AS (
  SELECT id, timestamp,
    LAG(id) OVER earlier AS previous_id,
    LAG(timestamp) OVER earlier AS previous_timestamp
  FROM snapshots
  WHERE timestamp >= ? AND timestamp <= ?
  WINDOW earlier AS (ORDER BY timestamp ASC)
), slices AS (
  SELECT id, timestamp, previous_id,
    CASE WHEN timestamp > previous_timestamp
      THEN MIN(timestamp - previous_timestamp, 60.0) / 3600.0 ELSE 0 END AS hours
  FROM ordered
)
SELECT
  COALESCE(SUM(hours * MAX(0, (earlier.total_watts + later.total_watts) * 0.5)), 0) AS total_wh,
  COALESCE(SUM(CASE WHEN COALESCE(later.on_battery_power, earlier.on_battery_power, 0) <> 0
    THEN hours * MAX(0, (earlier.total_watts + later.total_watts) * 0.5) ELSE 0 END), 0) AS battery_wh,
  COALESCE(SUM(hours * MAX(0, (earlier.tracker_total_w + later.tracker_total_w) * 0.5)), 0) AS tracker_wh,
  COALESCE((MAX(slices.timestamp) - MIN(slices.timestamp)) / 3600.0, 0) AS tracked_hours,
  COALESCE(SUM(hours), 0) AS sample_hours,
  COALESCE(SUM(hours * MAX(0, (earlier.process_total_w + later.process_total_w) * 0.5)), 0) AS process_wh,
  COALESCE(SUM(hours * MAX(0, (earlier.components_screen_w + later.components_screen_w) * 0.5)), 0) AS screen_wh,
  COALESCE(SUM(hours * MAX(0, (earlier.components_usb_w + later.components_usb_w) * 0.5)), 0) AS usb_wh,
  COALESCE(SUM(hours * MAX(0, (earlier.components_cpu_w + later.components_cpu_w) * 0.5)), 0) AS cpu_wh,
  COALESCE(SUM(hours * MAX(0, (earlier.components_gpu_w + later.components_gpu_w) * 0.5)), 0) AS gpu_wh,
  COALESCE(SUM(hours * MAX(0, (earlier.components_ane_w + later.components_ane_w) * 0.5)), 0) AS ane_wh,
  COALESCE(SUM(hours * MAX(0, (earlier.components_ram_w + later.components_ram_w) * 0.5)), 0) AS ram_wh,
  COALESCE(SUM(hours * MAX(0, (earlier.components_pci_w + later.components_pci_w) * 0.5)), 0) AS pci_wh,
  COALESCE(SUM(hours * MAX(0, (earlier.unattributed_w + later.unattributed_w) * 0.5)), 0) AS unattributed_wh
FROM slices
JOIN snapshots AS later ON later.id = slices.id
LEFT JOIN snapshots AS earlier ON earlier.id = slices.previous_id;
)";

/// A record of sums, in the order of its columns. A sum beyond the largest number reads as that, so that a
/// few preposterous snapshots don't make the others unreadable.
template <typename Record, typename... Members>
Record sumsOf(const Statement& row, Members... members) {
  constexpr double largest = std::numeric_limits<double>::max();
  Record record = recordOf(row, std::tuple{members...});
  ((record.*members = std::clamp(record.*members, -largest, largest)), ...);
  return record;
}

}  // namespace

std::string EnergyQueries::usageSummarySQL(std::string_view ownBundlePrefix) {
  return fmt::format(selectUsageSummary, quoted(ownBundlePrefix));
}

EnergyUsageSummary EnergyQueries::usageSummary(Database& database, const std::string& sql,
                                               std::int64_t limit) {
  using Summary = EnergyUsageSummary;
  if (limit < 2) return {};  // no slice; and SQLite would take a negative limit for none at all
  Statement select = database.prepared(sql);
  select.bind(limit);
  select.next();  // an aggregate always has one row
  return sumsOf<Summary>(select, &Summary::totalWh, &Summary::batteryWh, &Summary::trackedHours,
                         &Summary::trackerWh);
}

DetailsWindowSummary EnergyQueries::windowSummary(Database& database, PointInTime cutoff,
                                                  PointInTime anchor) {
  using Summary = DetailsWindowSummary;
  Statement select = database.prepared(selectWindowSummary);
  select.bind(cutoff.secondsSince1970(), anchor.secondsSince1970());
  select.next();  // an aggregate always has one row
  return sumsOf<Summary>(select, &Summary::totalWh, &Summary::batteryWh, &Summary::trackerWh,
                         &Summary::trackedHours, &Summary::sampleHours, &Summary::processWh,
                         &Summary::screenWh, &Summary::usbWh, &Summary::cpuWh, &Summary::gpuWh,
                         &Summary::aneWh, &Summary::ramWh, &Summary::pciWh, &Summary::unattributedWh);
}

}  // namespace quenzel
