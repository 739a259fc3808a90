#include "Storage/DetailsQueries.hpp"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "SharedModels/DetailsDataPipeline/DetailsReadModel.hpp"
#include "SharedModels/DetailsDataPipeline/WindowTimeline.hpp"
#include "SharedModels/Snapshot/ModelledFigures.hpp"
#include "Storage/Database.hpp"
#include "Storage/EnergyQueries.hpp"
#include "Storage/SnapshotQueries.hpp"
#include "Storage/SnapshotRows.hpp"

namespace quenzel {
namespace {

constexpr std::string_view selectWindowRows =
    "SELECT id, timestamp, total_watts, process_total_w, tracker_total_w, on_battery_power, "
    "battery_level_percent, components_screen_w, components_usb_w, unattributed_w, level_percent\n"
    "FROM snapshots LEFT JOIN battery_status_samples ON snapshot_id = id\n"
    "WHERE timestamp >= ? AND timestamp <= ?\n"
    "ORDER BY timestamp ASC;";

// Grouping by snapshot and key in SQL would sort every row of the window, four times the cost of reading
// them, and finding each by the index twice. So they are read in the table's own order, from the first row of
// any of the window's snapshots to the last, and summed up on the way. Rows are appended snapshot by
// snapshot, so that few of another window, if any, lie between them.
constexpr std::string_view takeProcessRows =
    "SELECT take_row(snapshot_id, process_group_key, drain_w)\n"
    "FROM process_samples\n"
    "WHERE rowid >= ? AND rowid <= ?;";

// In the order of an index, so that nothing is sorted.
constexpr std::string_view selectGroupedProcesses =
    "SELECT snapshot_id, timestamp, process_group_key, MAX(canonical_name), SUM(drain_w)\n"
    "FROM process_samples CROSS JOIN snapshots ON id = snapshot_id\n"
    "WHERE timestamp >= ? AND timestamp <= ?\n"
    "GROUP BY process_group_key, snapshot_id\n"
    "ORDER BY process_group_key ASC;";

constexpr std::string_view selectRowRange =
    "SELECT MIN((SELECT MIN(rowid) FROM process_samples WHERE snapshot_id = snapshots.id)), "
    "MAX((SELECT MAX(rowid) FROM process_samples WHERE snapshot_id = snapshots.id))\n"
    "FROM snapshots\n"
    "WHERE timestamp >= ? AND timestamp <= ?;";

constexpr std::string_view selectCanonicalName =
    "SELECT MAX(canonical_name) FROM process_samples WHERE process_group_key = ? AND snapshot_id = ?;";

// Where the power counters are modelled, every row that they gave watts to says so: the first ones tell.
constexpr std::string_view selectIsAnyModelled =
    "SELECT EXISTS (\n"
    "SELECT 1 FROM snapshots JOIN battery_status_samples ON snapshot_id = id\n"
    "WHERE timestamp >= ?1 AND timestamp <= ?2 AND serial_number = ?3\n"
    ") OR EXISTS (\n"
    "SELECT 1 FROM snapshots\n"
    "WHERE timestamp >= ?1 AND timestamp <= ?2 AND EXISTS (\n"
    "SELECT 1 FROM (SELECT source_flag FROM process_source_flags WHERE snapshot_id = snapshots.id LIMIT 4)\n"
    "WHERE source_flag = ?4));";

constexpr std::string_view selectHiddenRows =
    "SELECT snapshot_id, timestamp, kind, identifier, SUM(drain_w)\n"
    "FROM hidden_drains JOIN snapshots ON id = snapshot_id\n"
    "WHERE timestamp >= ? AND timestamp <= ?\n"
    "GROUP BY snapshot_id, kind, identifier\n"
    "ORDER BY timestamp ASC, kind ASC, identifier ASC;";

/// The snapshots of a window without their rows, in ascending time.
struct WindowRows {
  PointInTime cutoff = {};
  PointInTime anchor = {};
  std::vector<WindowSnapshotRow> snapshots = {};
};

/// Where each snapshot of a window stands in it. Rows of the same snapshot mostly come one after another.
class WindowPositions {
 public:
  explicit WindowPositions(const std::vector<WindowSnapshotRow>& snapshots) {
    positions_.reserve(snapshots.size());
    for (std::size_t position = 0; position < snapshots.size(); ++position)
      positions_.emplace(snapshots[position].id, position);
  }

  std::optional<std::size_t> find(std::int64_t id) {
    if (id != lastID_) {
      const auto entry = positions_.find(id);
      last_ = entry == positions_.end() ? std::nullopt : std::optional(entry->second);
      lastID_ = id;
    }
    return last_;
  }

 private:
  std::unordered_map<std::int64_t, std::size_t> positions_;
  std::int64_t lastID_ = 0;  // no row has it
  std::optional<std::size_t> last_;
};

WindowRows readWindowRows(Database& database, PointInTime cutoff, PointInTime anchor) {
  WindowRows window{.cutoff = cutoff, .anchor = anchor};
  Statement rows = database.prepared(selectWindowRows);
  rows.bind(cutoff.secondsSince1970(), anchor.secondsSince1970());
  while (rows.next()) window.snapshots.push_back(recordOf(rows, windowColumns));
  return window;
}

PreparedSnapshot preparedSnapshot(const WindowSnapshotRow& row) {
  return {.timestamp = PointInTime::fromSecondsSince1970(row.timestamp),
          .totalW = row.totalWatts,
          .processW = row.processTotalW,
          .componentW = row.componentsScreenW + row.componentsUsbW,
          .unattributedW = row.unattributedW,
          .onBatteryPower = row.onBatteryPower.value_or(false),
          .batteryLevelPercent = row.levelPercent};
}

WindowTimeline timelineOf(const WindowRows& window) {
  std::vector<PointInTime> timestamps;
  timestamps.reserve(window.snapshots.size());
  for (const WindowSnapshotRow& row : window.snapshots)
    timestamps.push_back(PointInTime::fromSecondsSince1970(row.timestamp));
  return {timestamps, window.cutoff, window.anchor};
}

/// Integrates the groups that have a row below 0 once more, from their sums.
void readSumsOfNegatives(Database& database, const WindowRows& window, const WindowTimeline& timeline,
                         GroupedWattsIntegrator& groups) {
  WindowPositions positions(window.snapshots);
  std::string key;
  std::vector<SnapshotWatts> watts;
  const auto finishGroup = [&] {
    if (!watts.empty()) groups.replace(key, integrateGroupedWatts(timeline, std::exchange(watts, {})));
  };
  Statement rows = database.prepared(selectGroupedProcesses);
  rows.bind(window.cutoff.secondsSince1970(), window.anchor.secondsSince1970());
  while (rows.next()) {
    auto row = recordOf(rows, groupedProcessColumns);
    if (!groups.hasNegativeRows(row.processGroupKey)) continue;
    if (row.processGroupKey != key) finishGroup();
    key = std::move(row.processGroupKey);
    if (const auto snapshot = positions.find(row.snapshotID)) watts.push_back({*snapshot, row.drainW});
  }
  finishGroup();
}

GroupedWattsIntegrator readProcesses(Database& database, const WindowRows& window,
                                     const WindowTimeline& timeline) {
  GroupedWattsIntegrator groups(timeline);
  WindowPositions positions(window.snapshots);
  Statement range = database.prepared(selectRowRange);
  range.bind(window.cutoff.secondsSince1970(), window.anchor.secondsSince1970());
  range.next();  // there is always a row; without process rows its values are NULL, and choose none
  const auto [first, last] = range.row<std::optional<std::int64_t>, std::optional<std::int64_t>>();
  database.takeRows(
      takeProcessRows,
      [&](std::int64_t id, std::string_view groupKey, double drainW) {
        if (const auto snapshot = positions.find(id)) groups.add(*snapshot, groupKey, drainW);
      },
      first, last);
  if (groups.hasNegativeRows()) readSumsOfNegatives(database, window, timeline, groups);
  return groups;
}

TextMap<std::string> readCanonicalNames(Database& database, const WindowRows& window,
                                        const TextMap<GroupedWatts>& groups) {
  TextMap<std::string> names;
  names.reserve(groups.size());
  Statement select = database.prepared(selectCanonicalName);
  for (const auto& [key, group] : groups) {
    select.bind(key, window.snapshots[group.newestSnapshot].id);
    select.next();  // an aggregate always has one row
    names.emplace(key, select.column<std::string>(0));
    select.reset();
  }
  return names;
}

struct HiddenWatts {
  TextMap<GroupedWatts> groups = {};
  std::vector<std::pair<HiddenDrainKind, std::string>> workloads = {};
};

HiddenWatts readHidden(Database& database, const WindowRows& window, const WindowTimeline& timeline) {
  HiddenWatts hidden;
  TextMap<std::vector<SnapshotWatts>> watts;
  WindowPositions positions(window.snapshots);
  Statement rows = database.prepared(selectHiddenRows);
  rows.bind(window.cutoff.secondsSince1970(), window.anchor.secondsSince1970());
  while (rows.next()) {
    const auto row = recordOf(rows, groupedHiddenColumns);
    const auto snapshot = positions.find(row.snapshotID);
    const auto kind = hiddenDrainKind(row.kind);
    if (!snapshot || !kind) continue;
    auto& ofWorkload = watts[HiddenDrain{*kind, row.identifier}.id()];
    if (ofWorkload.empty()) hidden.workloads.emplace_back(*kind, row.identifier);
    ofWorkload.push_back({*snapshot, row.drainW});
  }
  for (auto& [key, ofWorkload] : watts)
    hidden.groups.emplace(key, integrateGroupedWatts(timeline, std::move(ofWorkload)));
  return hidden;
}

bool isAnyModelled(Database& database, const WindowRows& window) {
  Statement select = database.prepared(selectIsAnyModelled);
  select.bind(window.cutoff.secondsSince1970(), window.anchor.secondsSince1970(), modelledSerialNumber,
              modelledSourceFlag);
  select.next();  // there is always a row
  return select.column<bool>(0);
}

void fillSeries(DetailsPipelineOutput& output, const WindowRows& window) {
  output.totalPowerW.reserve(window.snapshots.size());
  for (const WindowSnapshotRow& row : window.snapshots) {
    const PointInTime timestamp = PointInTime::fromSecondsSince1970(row.timestamp);
    output.totalPowerW.push_back({timestamp, chartValue(row.totalWatts)});
    // A snapshot from elsewhere may have a battery reading and no power context.
    if (const auto level = row.batteryLevelPercent ? row.batteryLevelPercent : row.levelPercent)
      output.batteryLevelPercent.push_back({timestamp, chartValue(*level)});
  }
  output.batteryDrainRatePctPerHour = calculateBatteryDrainRate(output.batteryLevelPercent);
}

void fillGroups(DetailsPipelineOutput& output, Database& database, const WindowRows& window,
                std::int64_t maxAppSeries) {
  const WindowTimeline timeline = timelineOf(window);
  const double sampleHours = output.summary.sampleHours;
  const GroupedWattsIntegrator processes = readProcesses(database, window, timeline);
  output.processes =
      buildGroupedProcessData(processes.groups(), readCanonicalNames(database, window, processes.groups()),
                              output.latestSnapshot, sampleHours);
  output.appSeries = buildAppSeries(output.processes, processes.groups(), timeline, maxAppSeries);
  const HiddenWatts hidden = readHidden(database, window, timeline);
  output.hidden = buildHiddenData(hidden.groups, hidden.workloads, output.latestSnapshot, sampleHours);
}

}  // namespace

std::vector<PreparedSnapshot> DetailsQueries::preparedSnapshots(Database& database, PointInTime cutoff,
                                                                PointInTime anchor) {
  std::vector<PreparedSnapshot> prepared;
  for (const WindowSnapshotRow& row : readWindowRows(database, cutoff, anchor).snapshots)
    prepared.push_back(preparedSnapshot(row));
  return prepared;
}

DetailsPipelineOutput DetailsQueries::readModel(Database& database, PointInTime cutoff, PointInTime anchor,
                                                std::int64_t maxAppSeries,
                                                const DrainSnapshot& fallbackSnapshot) {
  DetailsPipelineOutput output;
  output.windowStart = cutoff;
  output.anchor = anchor;
  output.latestSnapshot = SnapshotQueries::newest(database, cutoff, anchor).value_or(fallbackSnapshot);
  output.summary = EnergyQueries::windowSummary(database, cutoff, anchor);
  output.averageComponents = buildComponentAverages(output.summary, output.latestSnapshot, fallbackSnapshot);
  const WindowRows window = readWindowRows(database, cutoff, anchor);
  output.snapshotCount = static_cast<std::int64_t>(window.snapshots.size());
  output.modelled = isAnyModelled(database, window);
  fillSeries(output, window);
  if (!window.snapshots.empty()) fillGroups(output, database, window, maxAppSeries);
  return output;
}

}  // namespace quenzel
