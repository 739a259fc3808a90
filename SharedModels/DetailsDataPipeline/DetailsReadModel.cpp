#include "SharedModels/DetailsDataPipeline/DetailsReadModel.hpp"

#include <algorithm>
#include <tuple>

#include "SharedModels/DetailsDataPipeline/BatteryDrainRate.hpp"
#include "SharedModels/Presentation/ProcessDrainPresentation.hpp"
#include "SharedModels/Presentation/SyntheticPID.hpp"
#include "SharedModels/Runtime/Number.hpp"

namespace quenzel {
namespace {

bool isOfGroup(const ProcessDrain& process, std::string_view groupKey) {
  return process.processGroupKey && *process.processGroupKey == groupKey;
}

/// Better representatives compare greater.
auto representativeRank(const ProcessDrain& process) {
  return std::tuple{processPresentationScore(process), nonNegative(process.drainW), -process.pid};
}

TextMap<double> latestGroupWatts(const DrainSnapshot& latest) {
  TextMap<double> watts;
  for (const ProcessDrain& process : latest.processes)
    watts[process.processGroupKey.value_or("")] += nonNegative(process.drainW);
  return watts;
}

template <typename Value>
Value valueOr(const TextMap<Value>& map, std::string_view key, Value fallback) {
  const auto entry = map.find(key);
  return entry == map.end() ? fallback : entry->second;
}

}  // namespace

/// A hash of the key for each of millions of rows would cost as much as reading them.
GroupedWattsIntegrator::Entry& GroupedWattsIntegrator::entryOf(std::size_t snapshot,
                                                               std::string_view groupKey) {
  if (snapshot != snapshot_) position_ = 0;
  snapshot_ = snapshot;
  if (position_ == order_.size()) order_.push_back(nullptr);
  Entry*& guess = order_[position_++];
  if (guess != nullptr && guess->first == groupKey) return *guess;
  auto entry = groups_.find(groupKey);
  if (entry == groups_.end()) {
    entry = groups_.try_emplace(std::string(groupKey)).first;
    entry->second.spanWh.resize(DetailsPipelineOutput::maxSeriesPoints);
  }
  guess = &*entry;
  return *guess;
}

void GroupedWattsIntegrator::integrateGroupedWatts(std::size_t snapshot, std::string_view groupKey,
                                                   double drainW) {
  GroupedWatts& group = entryOf(snapshot, groupKey).second;
  group.newestSnapshot = std::max(group.newestSnapshot, snapshot);
  const double energyWh = nonNegative(drainW) * timeline_.hoursOf(snapshot);
  group.energyWh += energyWh;
  group.spanWh[timeline_.spanOf(snapshot)] += energyWh;
}

std::optional<ProcessDrain> groupedRepresentative(const DrainSnapshot& latest, std::string_view groupKey) {
  const ProcessDrain* best = nullptr;
  for (const ProcessDrain& process : latest.processes) {
    if (!isOfGroup(process, groupKey)) continue;
    if (best == nullptr || representativeRank(process) > representativeRank(*best)) best = &process;
  }
  return best == nullptr ? std::nullopt : std::optional(*best);
}

std::vector<GroupedProcessData> buildGroupedProcessData(const TextMap<GroupedWatts>& groups,
                                                        const TextMap<std::string>& canonicalNames,
                                                        const DrainSnapshot& latest, double sampleHours) {
  using ProcessAttributionPresentationService::stableSyntheticPID;
  const TextMap<double> latestW = latestGroupWatts(latest);
  std::vector<GroupedProcessData> processes;
  processes.reserve(groups.size());
  for (const auto& [key, group] : groups) {
    GroupedProcessData data;
    data.groupKey = key;
    data.representative = groupedRepresentative(latest, key);
    data.canonicalName = data.representative ? data.representative->canonicalName.value_or(key)
                                             : valueOr(canonicalNames, key, key);
    data.pid = data.representative ? data.representative->pid : stableSyntheticPID(key);
    data.energyWh = group.energyWh;
    data.averageW = sampleHours > 0 ? group.energyWh / sampleHours : 0;
    data.latestW = valueOr(latestW, key, 0.0);
    processes.push_back(std::move(data));
  }
  std::sort(processes.begin(), processes.end(), [](const auto& left, const auto& right) {
    return std::tie(right.energyWh, right.latestW, left.groupKey) <
           std::tie(left.energyWh, left.latestW, right.groupKey);
  });
  return processes;
}

std::vector<GroupedHiddenData> buildHiddenData(
    const TextMap<GroupedWatts>& groups, std::span<const std::pair<HiddenDrainKind, std::string>> workloads,
    const DrainSnapshot& latest, double sampleHours) {
  std::vector<GroupedHiddenData> hidden;
  hidden.reserve(workloads.size());
  for (const auto& [kind, identifier] : workloads) {
    GroupedHiddenData data{.kind = kind, .identifier = identifier};
    const auto group = groups.find(HiddenDrain{kind, identifier}.id());
    if (group != groups.end()) data.energyWh = group->second.energyWh;
    data.averageW = sampleHours > 0 ? data.energyWh / sampleHours : 0;
    for (const HiddenDrain& row : latest.hidden) {
      if (row.kind == kind && row.identifier == identifier) data.latestW += nonNegative(row.drainW);
    }
    hidden.push_back(std::move(data));
  }
  std::sort(hidden.begin(), hidden.end(), [](const auto& left, const auto& right) {
    return std::tie(right.energyWh, right.latestW, left.kind, left.identifier) <
           std::tie(left.energyWh, left.latestW, right.kind, right.identifier);
  });
  return hidden;
}

std::vector<AppSeries> buildAppSeries(std::span<const GroupedProcessData> processes,
                                      const TextMap<GroupedWatts>& groups, const WindowTimeline& timeline,
                                      std::int64_t maxAppSeries) {
  std::vector<AppSeries> series;
  for (const GroupedProcessData& process : processes) {
    if (static_cast<std::int64_t>(series.size()) >= maxAppSeries) break;
    series.push_back({process.groupKey, process.canonicalName, process.energyWh,
                      timeline.averageWatts(groups.find(process.groupKey)->second.spanWh)});
  }
  return series;
}

ComponentDrain buildComponentAverages(const DetailsWindowSummary& summary, const DrainSnapshot& latest,
                                      const DrainSnapshot& fallbackSnapshot) {
  using Component = double ComponentDrain::*;
  using Energy = double DetailsWindowSummary::*;
  constexpr std::pair<Component, Energy> components[] = {
      {&ComponentDrain::screenW, &DetailsWindowSummary::screenWh},
      {&ComponentDrain::usbW, &DetailsWindowSummary::usbWh},
      {&ComponentDrain::cpuW, &DetailsWindowSummary::cpuWh},
      {&ComponentDrain::gpuW, &DetailsWindowSummary::gpuWh},
      {&ComponentDrain::aneW, &DetailsWindowSummary::aneWh},
      {&ComponentDrain::ramW, &DetailsWindowSummary::ramWh},
      {&ComponentDrain::pciW, &DetailsWindowSummary::pciWh}};
  ComponentDrain average;
  for (const auto& [component, energy] : components) {
    average.*component = summary.sampleHours > 0 ? summary.*energy / summary.sampleHours
                                                 : nonNegative(fallbackSnapshot.components.*component);
  }
  average.confidence =
      summary.sampleHours > 0 ? latest.components.confidence : fallbackSnapshot.components.confidence;
  return average;
}

DetailsPipelineOutput emptyDetailsReadModel(double windowSeconds, const DrainSnapshot& fallbackSnapshot) {
  DetailsPipelineOutput output;
  output.anchor = fallbackSnapshot.timestamp;
  output.windowStart = output.anchor - windowSeconds;
  output.latestSnapshot = fallbackSnapshot;
  output.averageComponents = buildComponentAverages(output.summary, fallbackSnapshot, fallbackSnapshot);
  return output;
}

std::optional<double> calculateBatteryDrainRate(std::span<const ChartPoint> levels) {
  std::vector<BatteryLevelReading> readings;
  readings.reserve(levels.size());
  for (const ChartPoint& level : levels) readings.push_back({level.timestamp, level.value});
  return batteryDrainRatePerHour(readings);
}

}  // namespace quenzel
