#include "SharedModels/Presentation/ProcessAggregation.hpp"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "Base/Text.hpp"
#include "SharedModels/Presentation/ProcessDrainPresentation.hpp"
#include "SharedModels/Presentation/ProcessTerminationTargetResolver.hpp"
#include "SharedModels/Presentation/SnapshotAnnotation.hpp"
#include "SharedModels/Presentation/SyntheticPID.hpp"

namespace quenzel::ProcessAttributionPresentationService {
namespace {

/// Power and energy as they count: infinity would swallow all other figures.
double counted(double figure) {
  constexpr double highest = std::numeric_limits<double>::max();
  return figure > 0 && figure <= highest ? figure : 0;
}

double energyOf(const TextMap<double>& wattHours, std::string_view key) {
  const auto entry = wattHours.find(key);
  return entry == wattHours.end() ? 0 : counted(entry->second);
}

struct Group {
  std::string name = {};
  std::vector<ProcessDrain> members = {};
  double wattHours = 0;
};

/// Groups by name in lower case, in the order of the keys.
class Groups {
 public:
  void addMember(ProcessDrain annotated, double wattHours) {
    const std::string& name = *annotated.canonicalName;
    const auto [entry, isNew] = groups_.try_emplace(lowercased(name));
    Group& group = entry->second;
    if (isNew || name < group.name) group.name = name;
    annotated.drainW = counted(annotated.drainW);
    group.wattHours += wattHours;
    group.members.push_back(std::move(annotated));
  }
  /// Adds to the group of that name, if there is one.
  void addEnergy(const std::string& name, double wattHours) {
    const auto entry = groups_.find(lowercased(name));
    if (entry != groups_.end()) entry->second.wattHours += wattHours;
  }
  std::map<std::string, Group>& byKey() { return groups_; }

 private:
  std::map<std::string, Group> groups_;
};

void addOptional(std::optional<double>& sum, const std::optional<double>& figure) {
  if (figure) sum = sum.value_or(0) + counted(*figure);
}

void addFigures(ProcessDrain& sum, const ProcessDrain& member) {
  sum.drainW += member.drainW;
  sum.energyShare += counted(member.energyShare);
  addOptional(sum.rawCPUPercent, member.rawCPUPercent);
  addOptional(sum.cpuCapacityFraction, member.cpuCapacityFraction);
  addOptional(sum.cpuAttributedW, member.cpuAttributedW);
  addOptional(sum.ramAttributedW, member.ramAttributedW);
}

/// The flags of all members, each once, in the order in which they first appear.
std::vector<std::string> distinctSourceFlags(const std::vector<ProcessDrain>& members) {
  std::vector<std::string> flags;
  std::unordered_set<std::string_view> seen;
  for (const ProcessDrain& member : members) {
    for (const std::string& flag : member.sourceFlags) {
      if (seen.insert(flag).second) flags.push_back(flag);
    }
  }
  return flags;
}

/// A row that stands for no single process, with the figures of the members.
ProcessDrain syntheticRow(const std::string& key, const Group& group) {
  ProcessDrain row;
  row.pid = stableSyntheticPID(key);
  row.name = group.name;
  for (const ProcessDrain& member : group.members) addFigures(row, member);
  row.sourceFlags = distinctSourceFlags(group.members);
  return row;
}

void addVisibleRow(const std::string& key, Group group, VisibleProcessGroupingResult& result) {
  std::sort(
      group.members.begin(), group.members.end(), [](const ProcessDrain& left, const ProcessDrain& right) {
        return std::tie(right.drainW, left.pid, left.name) < std::tie(left.drainW, right.pid, right.name);
      });
  const bool standsForItself =
      group.members.size() == 1 && !result.processWhByID.contains(group.members.front().id());
  ProcessDrain grouped = standsForItself ? std::move(group.members.front()) : syntheticRow(key, group);
  if (standsForItself) group.members.clear();
  result.processes.push_back(visibleRepresentative(group.name, std::move(grouped), group.members));
  const std::string id = result.processes.back().id();
  result.processWhByID[id] += group.wattHours;
  if (!group.members.empty()) result.subprocessesByID[id] = std::move(group.members);
}

VisibleProcessGroupingResult visibleRows(Groups groups) {
  VisibleProcessGroupingResult result;
  result.processes.reserve(groups.byKey().size());
  for (auto& [key, group] : groups.byKey()) addVisibleRow(key, std::move(group), result);
  std::vector<std::pair<double, ProcessDrain>> ranked;
  ranked.reserve(result.processes.size());
  for (ProcessDrain& row : result.processes) {
    const double wattHours = result.processWhByID.find(row.id())->second;
    ranked.emplace_back(wattHours, std::move(row));
  }
  std::sort(ranked.begin(), ranked.end(), [](const auto& left, const auto& right) {
    return std::tie(right.first, right.second.drainW, left.second.displayName, left.second.pid) <
           std::tie(left.first, left.second.drainW, right.second.displayName, right.second.pid);
  });
  for (std::size_t rank = 0; rank < ranked.size(); ++rank)
    result.processes[rank] = std::move(ranked[rank].second);
  return result;
}

/// The latest row of each hidden workload.
std::vector<HiddenDrain> latestHidden(std::span<const DrainSnapshot> snapshots) {
  std::unordered_map<HiddenIdentity, const HiddenDrain*, HiddenIdentityHash> latest;
  for (const DrainSnapshot& snapshot : snapshots) {
    for (const HiddenDrain& row : snapshot.hidden) latest[{row.kind, row.identifier}] = &row;
  }
  std::vector<HiddenDrain> rows;
  rows.reserve(latest.size());
  for (const auto& [identity, row] : latest) rows.push_back(*row);
  return rows;
}

std::vector<HiddenDrain> mergedHidden(std::span<const DrainSnapshot> snapshots,
                                      const TextMap<double>& hiddenWhByID, double sampleHours) {
  std::vector<HiddenDrain> rows = latestHidden(snapshots);
  for (HiddenDrain& row : rows) {
    row.drainW = sampleHours > 0 ? energyOf(hiddenWhByID, row.id()) / sampleHours : counted(row.drainW);
  }
  std::sort(rows.begin(), rows.end(), [](const HiddenDrain& left, const HiddenDrain& right) {
    if (left.drainW != right.drainW) return left.drainW > right.drainW;
    return left.id() < right.id();
  });
  return rows;
}

bool bearsGroupName(const ProcessDrain& member, const std::string& lowerGroupName) {
  return processAppBundlePath(member) && lowercased(processDisplayName(member)) == lowerGroupName;
}

}  // namespace

std::vector<ProcessDrain> uniqueLatestProcesses(std::span<const DrainSnapshot> snapshots) {
  std::unordered_map<ProcessIdentityView, std::size_t, ProcessIdentityHash> turns;
  std::vector<const ProcessDrain*> latest;
  for (const DrainSnapshot& snapshot : snapshots) {
    for (const ProcessDrain& row : snapshot.processes) {
      const auto [entry, isNew] = turns.try_emplace(identityOf(row), latest.size());
      if (isNew) latest.push_back(&row);
      latest[entry->second] = &row;
    }
  }
  std::vector<ProcessDrain> processes;
  processes.reserve(latest.size());
  for (const ProcessDrain* row : latest) processes.push_back(*row);
  return processes;
}

UniqueProcessesResult makeUniqueProcesses(std::span<const DrainSnapshot> snapshots,
                                          const TextMap<double>& processWhByID,
                                          const TextMap<double>& hiddenWhByID, double sampleHours,
                                          const DrainSnapshot& fallbackSnapshot,
                                          const ProcessPresentationContext& context) {
  if (snapshots.empty()) snapshots = std::span(&fallbackSnapshot, 1);
  Groups groups;
  for (ProcessDrain& latest : uniqueLatestProcesses(snapshots)) {
    ProcessDrain process = annotateProcess(std::move(latest), context);
    const double wattHours = energyOf(processWhByID, process.id());
    if (sampleHours > 0) process.drainW = wattHours / sampleHours;
    groups.addMember(std::move(process), wattHours);
  }
  VisibleProcessGroupingResult visible = visibleRows(std::move(groups));
  return {std::move(visible.processes), std::move(visible.processWhByID), std::move(visible.subprocessesByID),
          mergedHidden(snapshots, hiddenWhByID, sampleHours)};
}

VisibleProcessGroupingResult groupVisibleProcesses(const DrainSnapshot& snapshot,
                                                   const ProcessPresentationContext& context,
                                                   const TextMap<double>& groupedWhByName) {
  Groups groups;
  for (const ProcessDrain& process : snapshot.processes)
    groups.addMember(annotateProcess(process, context), 0);
  // Sorted, so that the spellings of one name are always taken in the same order.
  for (const auto& [name, wattHours] :
       std::map<std::string, double>(groupedWhByName.begin(), groupedWhByName.end())) {
    if (counted(wattHours) > 0) groups.addEnergy(name, wattHours);
  }
  return visibleRows(std::move(groups));
}

ProcessDrain visibleRepresentative(std::string_view groupName, ProcessDrain groupedProcess,
                                   std::span<const ProcessDrain> subprocesses) {
  if (!subprocesses.empty()) {
    const ProcessDrain& source = bestVisibleRepresentativeSource(groupName, groupedProcess, subprocesses);
    groupedProcess.name = source.name;
    groupedProcess.bundleID = source.bundleID;
    groupedProcess.processGroupKey = source.processGroupKey;
  }
  groupedProcess.displayName = groupName;
  groupedProcess.canonicalName = groupName;
  return groupedProcess;
}

const ProcessDrain& bestVisibleRepresentativeSource(std::string_view groupName,
                                                    const ProcessDrain& groupedProcess,
                                                    std::span<const ProcessDrain> subprocesses) {
  if (subprocesses.empty()) return groupedProcess;
  std::unordered_set<std::int64_t> pids;
  for (const ProcessDrain& member : subprocesses) pids.insert(member.pid);
  const std::string lowerName = lowercased(groupName);
  const auto rank = [&](const ProcessDrain& member) {
    const bool isRoot = !member.parentPID || !pids.contains(*member.parentPID);
    return std::tuple(bearsGroupName(member, lowerName), processPresentationScore(member),
                      ProcessTerminationTargetResolver::directAppExecutableScore(member), isRoot);
  };
  const ProcessDrain* best = nullptr;
  decltype(rank(groupedProcess)) bestRank;
  for (const ProcessDrain& member : subprocesses) {
    const auto memberRank = rank(member);
    const auto comesFirst = [&] {
      return std::tie(member.pid, member.name) < std::tie(best->pid, best->name);
    };
    if (!best || memberRank > bestRank || (memberRank == bestRank && comesFirst())) {
      best = &member;
      bestRank = memberRank;
    }
  }
  return *best;
}

TextMap<double> processWattsByDisplayName(const DrainSnapshot& snapshot,
                                          const ProcessPresentationContext& context) {
  TextMap<double> watts;
  watts.reserve(snapshot.processes.size());
  std::string scratch;
  for (const ProcessDrain& process : snapshot.processes) {
    const std::string_view name = visibleName(process, context, scratch);
    auto entry = watts.find(name);
    if (entry == watts.end()) entry = watts.emplace(name, 0).first;
    entry->second += counted(process.drainW);
  }
  return watts;
}

TextMap<double> processWattsByDisplayName(const DrainSnapshot& snapshot,
                                          const TextMap<std::string>& aliasByExecutableLeaf,
                                          DisplayNameCache& displayNameCache) {
  TextMap<double> watts;
  watts.reserve(snapshot.processes.size());
  for (const ProcessDrain& process : snapshot.processes) {
    const auto alias = aliasByExecutableLeaf.find(lowercased(executableLeaf(process)));
    const bool hasAlias = alias != aliasByExecutableLeaf.end() && !alias->second.empty();
    watts[hasAlias ? alias->second : cachedDisplayName(process, displayNameCache)] += counted(process.drainW);
  }
  return watts;
}

}  // namespace quenzel::ProcessAttributionPresentationService
