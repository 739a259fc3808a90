#include "QuenzelMonitor/Views/HistoryView.hpp"

#include <algorithm>
#include <map>
#include <tuple>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "Base/Text.hpp"
#include "SharedModels/Presentation/ProcessAttributionPresentationService.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

using OrderedJson = nlohmann::ordered_json;

/// Clocks are adjusted by less than this all the time.
constexpr double clockSlackSeconds = 60;

/// The applications with a row in the newest snapshot.
std::vector<ApplicationUsage> runningApplications(const DrainSnapshot& newest,
                                                  const TextMap<double>& whByName) {
  const auto grouping = ProcessAttributionPresentationService::groupVisibleProcesses(newest, {}, whByName);
  std::vector<ApplicationUsage> applications;
  for (const ProcessDrain& process : grouping.processes) {
    const std::string id = process.id();
    const auto energy = grouping.processWhByID.find(id);
    const auto members = grouping.subprocessesByID.find(id);
    ApplicationUsage usage{.name = process.canonicalName.value_or(process.name), .latestW = process.drainW};
    if (energy != grouping.processWhByID.end()) usage.energyWh = energy->second;
    if (members != grouping.subprocessesByID.end()) {
      usage.memberCount = static_cast<std::int64_t>(members->second.size());
    } else {
      usage.memberCount = process.pid > 0 ? 1 : 0;
    }
    applications.push_back(std::move(usage));
  }
  return applications;
}

/// Adds the applications without a row in the newest snapshot: they drew energy within the window, and have
/// ended or draw next to nothing now. Names that differ only in case are one application.
void addEndedApplications(const TextMap<double>& whByName, std::vector<ApplicationUsage>& applications) {
  std::unordered_set<std::string> running;
  for (const ApplicationUsage& usage : applications) running.insert(lowercased(usage.name));
  std::map<std::string, ApplicationUsage> ended;
  for (const auto& [name, energyWh] : whByName) {
    const std::string key = lowercased(name);
    if (!(energyWh > 0) || running.contains(key)) continue;
    ApplicationUsage& usage = ended[key];
    if (usage.name.empty() || name < usage.name) usage.name = name;
    usage.energyWh += energyWh;
  }
  for (auto& [key, usage] : ended) applications.push_back(std::move(usage));
}

/// All applications of the window, so that their energies add up to that of its processes.
std::vector<ApplicationUsage> applicationsOf(const DetailsPipelineOutput& details) {
  TextMap<double> whByName;
  for (const GroupedProcessData& group : details.processes) whByName[group.canonicalName] += group.energyWh;
  std::vector<ApplicationUsage> applications = runningApplications(details.latestSnapshot, whByName);
  addEndedApplications(whByName, applications);
  const double hours = details.summary.sampleHours;
  for (ApplicationUsage& usage : applications) usage.averageW = hours > 0 ? usage.energyWh / hours : 0;
  std::stable_sort(applications.begin(), applications.end(),
                   [](const ApplicationUsage& left, const ApplicationUsage& right) {
                     return std::tie(right.energyWh, right.latestW, left.name) <
                            std::tie(left.energyWh, left.latestW, right.name);
                   });
  return applications;
}

OrderedJson encodeApplication(const ApplicationUsage& usage) {
  return {{"name", usage.name},
          {"energyWh", usage.energyWh},
          {"averageW", usage.averageW},
          {"latestW", usage.latestW},
          {"memberCount", usage.memberCount}};
}

OrderedJson encodePowerPoint(const PowerTrendPoint& point) {
  return {{"timestamp", encodeJSONValue(point.timestamp)},
          {"time", iso8601Text(point.timestamp)},
          {"totalW", point.totalW},
          {"processW", point.processW},
          {"componentW", point.componentW},
          {"unattributedW", point.unattributedW},
          {"onBatteryPower", point.onBatteryPower}};
}

OrderedJson encodeEnergyPoint(const EnergyTrendPoint& point) {
  return {{"timestamp", encodeJSONValue(point.timestamp)},
          {"time", iso8601Text(point.timestamp)},
          {"totalWh", point.totalWh},
          {"batteryWh", point.batteryWh}};
}

OrderedJson encodeLevelPoint(const BatteryLevelPoint& point) {
  return {{"timestamp", encodeJSONValue(point.timestamp)},
          {"time", iso8601Text(point.timestamp)},
          {"levelPercent", point.levelPercent}};
}

}  // namespace

DrainSnapshot liveSnapshot(const SQLiteSnapshotStore& store) {
  const auto newest = store.fetchLatest(1);
  return newest.empty() ? DrainSnapshot{.timestamp = now()} : newest.front();
}

HistoryView readHistoryView(const SQLiteSnapshotStore& store, const GraphPeriodSpec& period,
                            PointInTime now) {
  const DrainSnapshot newest = liveSnapshot(store);
  HistoryView view{.period = period};
  if (newest.timestamp - now > clockSlackSeconds) view.newestInFuture = newest.timestamp;
  const PointInTime anchor = view.newestInFuture ? now : newest.timestamp;
  view.details = store.fetchDetailsReadModel(period.seconds, 0, anchor, newest);
  view.trends =
      GraphBuildEngine::buildPeriodTrends(store.fetchPreparedSnapshots(period.seconds, anchor), period);
  view.applications = applicationsOf(view.details);
  return view;
}

OrderedJson encodeHistoryView(const HistoryView& view) {
  const DetailsPipelineOutput& details = view.details;
  OrderedJson json = {{"window", view.period.label},
                      {"windowStart", encodeJSONValue(details.windowStart)},
                      {"windowStartTime", iso8601Text(details.windowStart)},
                      {"anchor", encodeJSONValue(details.anchor)},
                      {"anchorTime", iso8601Text(details.anchor)},
                      {"snapshotCount", details.snapshotCount},
                      {"modelled", details.modelled},
                      {"summary", encodeDetailsWindowSummary(details.summary)}};
  if (!details.batteryLevelPercent.empty())
    json["batteryLevelPercent"] = details.batteryLevelPercent.back().value;
  if (const auto rate = view.trends.reliableBatteryDrainRatePerHour)
    json["batteryDrainRatePctPerHour"] = *rate;
  json["applications"] = encodeJSONList(view.applications, encodeApplication);
  json["powerTrend"] = encodeJSONList(view.trends.powerTrend, encodePowerPoint);
  json["energyTrend"] = encodeJSONList(view.trends.energyTrend, encodeEnergyPoint);
  json["batteryLevelTrend"] = encodeJSONList(view.trends.batteryLevelTrend, encodeLevelPoint);
  return json;
}

}  // namespace quenzel
