#include "SharedModels/DetailsDataPipeline/DetailsReadModel.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>
#include <utility>

#include "Base/Number.hpp"
#include "SharedModels/DetailsDataPipeline/BatteryDrainRate.hpp"
#include "SharedModels/Presentation/ProcessDrainPresentation.hpp"
#include "SharedModels/Presentation/SyntheticPID.hpp"

namespace quenzel {
namespace {

bool isOfGroup(const ProcessDrain& process, std::string_view groupKey) {
  return process.processGroupKey && *process.processGroupKey == groupKey;
}

bool representsBetter(const ProcessDrain& process, const ProcessDrain& other) {
  const auto rank = [](const ProcessDrain& row) {
    return std::tuple{processPresentationScore(row), nonNegative(row.drainW)};
  };
  if (rank(process) != rank(other)) return rank(process) > rank(other);
  return process.pid < other.pid;
}

/// Sums of numbers near the largest there is: what is larger reads as the largest, and what is no number (two
/// infinities against each other) as 0.
double representable(double value) {
  constexpr double largest = std::numeric_limits<double>::max();
  return std::isnan(value) ? 0 : std::clamp(value, -largest, largest);
}

double averageW(double energyWh, double hours) { return hours > 0 ? representable(energyWh / hours) : 0; }

/// The snapshot's rows taken apart, so that not every group looks through those of all.
TextMap<DrainSnapshot> rowsByGroup(const DrainSnapshot& snapshot) {
  TextMap<DrainSnapshot> groups;
  for (const ProcessDrain& process : snapshot.processes) {
    if (process.processGroupKey) groups[*process.processGroupKey].processes.push_back(process);
  }
  return groups;
}

TextMap<double> latestGroupWatts(const DrainSnapshot& latest) {
  TextMap<double> watts;
  for (const ProcessDrain& process : latest.processes)
    watts[process.processGroupKey.value_or("")] += process.drainW;
  return watts;
}

/// By the key under which each hidden workload is integrated.
TextMap<double> latestHiddenWatts(const DrainSnapshot& latest) {
  TextMap<double> watts;
  for (const HiddenDrain& row : latest.hidden) watts[row.id()] += row.drainW;
  return watts;
}

GroupedWatts noWatts() { return {.spanWh = std::vector<double>(DetailsPipelineOutput::maxSeriesPoints)}; }

/// An infinite power over no time is no energy.
void addEnergy(GroupedWatts& group, std::size_t span, double hours, double watts) {
  if (hours == 0) return;
  group.energyWh += hours * watts;
  group.spanWh[span] += hours * watts;
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
    entry->second = noWatts();
  }
  guess = &*entry;
  return *guess;
}

void GroupedWattsIntegrator::add(std::size_t snapshot, std::string_view groupKey, double drainW) {
  GroupedWatts& group = entryOf(snapshot, groupKey).second;
  group.newestSnapshot = std::max(group.newestSnapshot, snapshot);
  if (drainW < 0) group.hasNegativeRow = hasNegativeRows_ = true;
  addEnergy(group, timeline_.spanOf(snapshot), timeline_.hoursOf(snapshot), drainW);
}

bool GroupedWattsIntegrator::hasNegativeRows(std::string_view groupKey) const {
  const auto entry = groups_.find(groupKey);
  return entry != groups_.end() && entry->second.hasNegativeRow;
}

void GroupedWattsIntegrator::replace(std::string_view groupKey, GroupedWatts watts) {
  groups_.find(groupKey)->second = std::move(watts);
}

GroupedWatts integrateGroupedWatts(const WindowTimeline& timeline, std::vector<SnapshotWatts> watts) {
  std::sort(watts.begin(), watts.end(),
            [](const auto& left, const auto& right) { return left.snapshot < right.snapshot; });
  GroupedWatts group = noWatts();
  const auto addSlice = [&](const SnapshotWatts& earlier, const SnapshotWatts& later, double hours) {
    if (!(earlier.watts + later.watts > 0)) return;
    for (const SnapshotWatts& end : {earlier, later})
      addEnergy(group, timeline.spanOf(end.snapshot), hours / 2, end.watts);
  };
  for (std::size_t index = 0; index < watts.size(); ++index) {
    const SnapshotWatts& here = watts[index];
    group.newestSnapshot = here.snapshot;
    const bool followsOne = index > 0 && watts[index - 1].snapshot + 1 == here.snapshot;
    const bool isFollowed = index + 1 < watts.size() && here.snapshot + 1 == watts[index + 1].snapshot;
    if (here.snapshot > 0) {
      addSlice(followsOne ? watts[index - 1] : SnapshotWatts{here.snapshot - 1, 0}, here,
               timeline.hoursBefore(here.snapshot));
    }
    if (!isFollowed) addSlice(here, {here.snapshot, 0}, timeline.hoursAfter(here.snapshot));
  }
  return group;
}

std::optional<ProcessDrain> groupedRepresentative(const DrainSnapshot& latest, std::string_view groupKey) {
  const ProcessDrain* best = nullptr;
  for (const ProcessDrain& process : latest.processes) {
    if (!isOfGroup(process, groupKey)) continue;
    if (best == nullptr || representsBetter(process, *best)) best = &process;
  }
  return best == nullptr ? std::nullopt : std::optional(*best);
}

std::vector<GroupedProcessData> buildGroupedProcessData(const TextMap<GroupedWatts>& groups,
                                                        const TextMap<std::string>& canonicalNames,
                                                        const DrainSnapshot& latest, double sampleHours) {
  using ProcessAttributionPresentationService::stableSyntheticPID;
  const TextMap<double> latestW = latestGroupWatts(latest);
  const TextMap<DrainSnapshot> latestRows = rowsByGroup(latest);
  std::vector<GroupedProcessData> processes;
  processes.reserve(groups.size());
  for (const auto& [key, group] : groups) {
    GroupedProcessData data;
    data.groupKey = key;
    const auto rows = latestRows.find(key);
    if (rows != latestRows.end()) data.representative = groupedRepresentative(rows->second, key);
    data.canonicalName = data.representative ? data.representative->canonicalName.value_or(key)
                                             : valueOr(canonicalNames, key, key);
    data.pid = data.representative ? data.representative->pid : stableSyntheticPID(key);
    data.energyWh = representable(group.energyWh);
    data.averageW = averageW(data.energyWh, sampleHours);
    data.latestW = representable(valueOr(latestW, key, 0.0));
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
  const TextMap<double> latestW = latestHiddenWatts(latest);
  std::vector<GroupedHiddenData> hidden;
  hidden.reserve(workloads.size());
  for (const auto& [kind, identifier] : workloads) {
    GroupedHiddenData data{.kind = kind, .identifier = identifier};
    const std::string id = HiddenDrain{kind, identifier}.id();
    const auto group = groups.find(id);
    if (group != groups.end()) data.energyWh = representable(group->second.energyWh);
    data.averageW = averageW(data.energyWh, sampleHours);
    data.latestW = representable(valueOr(latestW, id, 0.0));
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
    average.*component = summary.sampleHours > 0 ? averageW(summary.*energy, summary.sampleHours)
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
