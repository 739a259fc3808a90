#include "QuenzelMonitor/HistoryView.hpp"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "QuenzelMonitor/HistoryDatabase.hpp"
#include "SharedModels/Presentation/ProcessAttributionPresentationService.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

using OrderedJson = nlohmann::ordered_json;

bool isModelled(const DrainSnapshot& snapshot) {
  const auto& processes = snapshot.processes;
  const bool byRow = std::any_of(processes.begin(), processes.end(), [](const ProcessDrain& process) {
    return std::count(process.sourceFlags.begin(), process.sourceFlags.end(), "modelled") > 0;
  });
  return byRow || (snapshot.batteryStatus && snapshot.batteryStatus->serialNumber == "MODELLED");
}

/// The model is switched on or off for a whole recording, so that a few snapshots tell.
bool isAnyModelled(const SQLiteSnapshotStore& store, const GraphPeriodSpec& period, PointInTime anchor) {
  constexpr std::int64_t looks = 20;
  const auto snapshots = store.fetchWindowSnapshots(period.seconds, looks, anchor);
  return std::any_of(snapshots.begin(), snapshots.end(), isModelled);
}

std::vector<ApplicationUsage> applicationsOf(const DetailsPipelineOutput& details) {
  TextMap<double> whByName;
  for (const GroupedProcessData& group : details.processes) whByName[group.canonicalName] += group.energyWh;
  const auto grouping =
      ProcessAttributionPresentationService::groupVisibleProcesses(details.latestSnapshot, {}, whByName);
  const double hours = details.summary.sampleHours;
  std::vector<ApplicationUsage> applications;
  for (const ProcessDrain& process : grouping.processes) {
    const std::string id = process.id();
    const auto energy = grouping.processWhByID.find(id);
    const auto members = grouping.subprocessesByID.find(id);
    ApplicationUsage usage{.name = process.canonicalName.value_or(process.name), .latestW = process.drainW};
    if (energy != grouping.processWhByID.end()) usage.energyWh = energy->second;
    usage.averageW = hours > 0 ? usage.energyWh / hours : 0;
    if (members != grouping.subprocessesByID.end()) {
      usage.memberCount = static_cast<std::int64_t>(members->second.size());
    } else {
      usage.memberCount = process.pid > 0 ? 1 : 0;
    }
    applications.push_back(std::move(usage));
  }
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
          {"totalW", point.totalW},
          {"processW", point.processW},
          {"componentW", point.componentW},
          {"unattributedW", point.unattributedW},
          {"onBatteryPower", point.onBatteryPower}};
}

OrderedJson encodeEnergyPoint(const EnergyTrendPoint& point) {
  return {{"timestamp", encodeJSONValue(point.timestamp)},
          {"totalWh", point.totalWh},
          {"batteryWh", point.batteryWh}};
}

OrderedJson encodeLevelPoint(const BatteryLevelPoint& point) {
  return {{"timestamp", encodeJSONValue(point.timestamp)}, {"levelPercent", point.levelPercent}};
}

}  // namespace

HistoryView readHistoryView(const SQLiteSnapshotStore& store, const GraphPeriodSpec& period) {
  HistoryView view{.period = period};
  view.details = store.fetchDetailsReadModel(period.seconds, 0, {}, liveSnapshot(store));
  const PointInTime anchor = view.details.anchor;
  view.trends =
      GraphBuildEngine::buildPeriodTrends(store.fetchPreparedSnapshots(period.seconds, anchor), period);
  view.applications = applicationsOf(view.details);
  view.modelled = isAnyModelled(store, period, anchor);
  return view;
}

OrderedJson encodeHistoryView(const HistoryView& view) {
  const DetailsPipelineOutput& details = view.details;
  OrderedJson json = {{"window", view.period.label},
                      {"windowStart", encodeJSONValue(details.windowStart)},
                      {"anchor", encodeJSONValue(details.anchor)},
                      {"snapshotCount", details.snapshotCount},
                      {"modelled", view.modelled},
                      {"summary", encodeDetailsWindowSummary(details.summary)}};
  if (!details.batteryLevelPercent.empty())
    json["batteryLevelPercent"] = details.batteryLevelPercent.back().value;
  if (view.trends.batteryDrainRatePerHour)
    json["batteryDrainRatePctPerHour"] = *view.trends.batteryDrainRatePerHour;
  json["applications"] = encodeJSONList(view.applications, encodeApplication);
  json["powerTrend"] = encodeJSONList(view.trends.powerTrend, encodePowerPoint);
  json["energyTrend"] = encodeJSONList(view.trends.energyTrend, encodeEnergyPoint);
  json["batteryLevelTrend"] = encodeJSONList(view.trends.batteryLevelTrend, encodeLevelPoint);
  return json;
}

}  // namespace quenzel
