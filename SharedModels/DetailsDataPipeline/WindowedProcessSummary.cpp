#include "SharedModels/DetailsDataPipeline/WindowedProcessSummary.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

#include "Base/Text.hpp"
#include "SharedModels/Presentation/ProcessAggregation.hpp"
#include "SharedModels/Presentation/ProcessDrainPresentation.hpp"
#include "SharedModels/Snapshot/EnergySlice.hpp"
#include "SharedModels/Snapshot/SnapshotQuality.hpp"

namespace quenzel::WindowedProcessSummaryBuilder {
namespace {

namespace Presentation = ProcessAttributionPresentationService;

/// Snapshots of the caller, who outlives the list.
using SnapshotList = std::vector<const DrainSnapshot*>;

/// Snapshots no further apart show the same moment.
constexpr double sameMomentSeconds = 0.5;

/// Called twice for every row of a history; the first letter of nearly every name settles it.
bool isStored(const std::optional<std::string>& name) {
  if (!name || name->empty()) return false;
  const char first = name->front();
  return (first > ' ' && first <= '~') || !isBlank(*name);
}

bool hasStoredNames(const DrainSnapshot& snapshot) {
  return std::all_of(snapshot.processes.begin(), snapshot.processes.end(), [](const ProcessDrain& process) {
    return isStored(process.displayName) && isStored(process.canonicalName);
  });
}

void keepBetterOfNearDuplicates(SnapshotList& snapshots) {
  SnapshotList kept;
  kept.reserve(snapshots.size());
  for (const DrainSnapshot* candidate : snapshots) {
    if (kept.empty() || !(std::abs(candidate->timestamp - kept.back()->timestamp) <= sameMomentSeconds)) {
      kept.push_back(candidate);
    } else if (snapshotQuality(*candidate) >= snapshotQuality(*kept.back())) {
      kept.back() = candidate;
    }
  }
  snapshots = std::move(kept);
}

/// The newest snapshot stays even where the cutoff lies after it or is not a number.
void keepFromCutoff(SnapshotList& snapshots, double windowSeconds) {
  const PointInTime cutoff = snapshots.back()->timestamp - windowSeconds;
  const auto first = std::find_if(snapshots.begin(), snapshots.end() - 1, [&](const DrainSnapshot* snapshot) {
    return snapshot->timestamp >= cutoff;
  });
  snapshots.erase(snapshots.begin(), first);
}

SnapshotList windowOf(std::span<const DrainSnapshot> sourceRaw, const DrainSnapshot& fallbackSnapshot,
                      double windowSeconds) {
  if (sourceRaw.empty()) return {&fallbackSnapshot};
  SnapshotList snapshots;
  snapshots.reserve(sourceRaw.size());
  for (const DrainSnapshot& snapshot : sourceRaw) snapshots.push_back(&snapshot);
  if (!isAscending(sourceRaw)) {
    std::stable_sort(snapshots.begin(), snapshots.end(),
                     [](const DrainSnapshot* left, const DrainSnapshot* right) {
                       return left->timestamp < right->timestamp;
                     });
  }
  keepBetterOfNearDuplicates(snapshots);
  keepFromCutoff(snapshots, windowSeconds);
  return snapshots;
}

ProcessPresentationContext contextOf(const SnapshotList& snapshots, const CancellationToken& cancellation) {
  const bool isNamed = std::all_of(snapshots.begin(), snapshots.end(),
                                   [](const DrainSnapshot* snapshot) { return hasStoredNames(*snapshot); });
  if (isNamed) return {};
  return Presentation::makeLatestOnlyContextInPlace(snapshots, cancellation);
}

void integrate(const SnapshotList& windowed, const ProcessPresentationContext& context,
               const CancellationToken& cancellation, WindowedProcessSummary& summary) {
  TextMap<double> previousWatts = Presentation::processWattsByDisplayName(*windowed.front(), context);
  for (std::size_t i = 1; i < windowed.size() && !cancellation.isCancelled(); ++i) {
    const DrainSnapshot& earlier = *windowed[i - 1];
    const DrainSnapshot& later = *windowed[i];
    const double seconds = later.timestamp - earlier.timestamp;
    if (!(seconds > sameMomentSeconds)) continue;
    const double hours = sliceHours(seconds);
    summary.totalWh += sliceWh(hours, earlier.totalDischargeW, later.totalDischargeW);
    TextMap<double> currentWatts = Presentation::processWattsByDisplayName(later, context);
    accumulateAverageEnergy(previousWatts, currentWatts, hours, summary.groupedWhByName);
    previousWatts = std::move(currentWatts);
  }
}

ProcessGroup groupOf(const ProcessDrain& representative, VisibleProcessGroupingResult& grouping) {
  const std::string key = representative.id();
  ProcessGroup group;
  group.canonicalName =
      representative.canonicalName ? *representative.canonicalName : processDisplayName(representative);
  group.id = lowercased(group.canonicalName);
  group.totalDrainW = representative.drainW;
  const auto energy = grouping.processWhByID.find(key);
  if (energy != grouping.processWhByID.end()) group.totalEnergyWh = energy->second;
  group.processes.push_back(representative);
  const auto members = grouping.subprocessesByID.find(key);
  if (members != grouping.subprocessesByID.end())
    std::move(members->second.begin(), members->second.end(), std::back_inserter(group.processes));
  group.iconProcess = representative;
  return group;
}

}  // namespace

WindowedProcessSummary summarize(std::span<const DrainSnapshot> sourceRaw,
                                 const DrainSnapshot& fallbackSnapshot, double windowSeconds,
                                 const CancellationToken& cancellation) {
  const SnapshotList windowed = windowOf(sourceRaw, fallbackSnapshot, windowSeconds);
  const ProcessPresentationContext context = contextOf(windowed, cancellation);
  WindowedProcessSummary summary;
  summary.rangeSnapshot = *windowed.back();
  integrate(windowed, context, cancellation, summary);
  VisibleProcessGroupingResult grouping =
      Presentation::groupVisibleProcesses(summary.rangeSnapshot, context, summary.groupedWhByName);
  summary.processGroups.reserve(grouping.processes.size());
  for (const ProcessDrain& representative : grouping.processes)
    summary.processGroups.push_back(groupOf(representative, grouping));
  return summary;
}

std::vector<DrainSnapshot> windowedSnapshots(std::span<const DrainSnapshot> sourceRaw,
                                             const DrainSnapshot& fallbackSnapshot, double windowSeconds) {
  const SnapshotList window = windowOf(sourceRaw, fallbackSnapshot, windowSeconds);
  std::vector<DrainSnapshot> snapshots;
  snapshots.reserve(window.size());
  for (const DrainSnapshot* snapshot : window) snapshots.push_back(*snapshot);
  return snapshots;
}

bool isAscending(std::span<const DrainSnapshot> snapshots) {
  const auto runsBack = [](const DrainSnapshot& earlier, const DrainSnapshot& later) {
    return later.timestamp < earlier.timestamp;
  };
  return std::adjacent_find(snapshots.begin(), snapshots.end(), runsBack) == snapshots.end();
}

bool hasStoredPresentationData(std::span<const DrainSnapshot> snapshots) {
  return std::all_of(snapshots.begin(), snapshots.end(), hasStoredNames);
}

void accumulateAverageEnergy(const TextMap<double>& previous, const TextMap<double>& current,
                             double intervalHours, TextMap<double>& whByName) {
  if (!(intervalHours > 0)) return;
  const double half = intervalHours * 0.5;
  std::size_t inBoth = 0;
  for (const auto& [name, watts] : current) {
    const auto before = previous.find(name);
    if (before != previous.end()) ++inBoth;
    const double wh = half * (watts + (before == previous.end() ? 0 : before->second));
    if (wh != 0) whByName[name] += wh;
  }
  if (inBoth == previous.size()) return;  // nearly always: processes seldom come and go
  for (const auto& [name, watts] : previous) {
    const double wh = current.contains(name) ? 0 : half * watts;
    if (wh != 0) whByName[name] += wh;
  }
}

}  // namespace quenzel::WindowedProcessSummaryBuilder
