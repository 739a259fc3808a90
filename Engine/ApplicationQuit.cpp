#include "Engine/ApplicationQuit.hpp"

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Base/Text.hpp"
#include "SharedModels/Presentation/ProcessAttributionPresentationService.hpp"
#include "SharedModels/Presentation/ProcessTerminationTargetResolver.hpp"

namespace quenzel {
namespace {

namespace Presentation = ProcessAttributionPresentationService;

struct Application {
  ProcessDrain representative;
  std::vector<ProcessDrain> members;
};

DrainSnapshot annotatedSnapshot(const std::vector<ProcessSample>& running) {
  DrainSnapshot snapshot;
  for (const ProcessSample& process : running) {
    snapshot.processes.push_back({.pid = process.pid,
                                  .parentPID = process.parentPID,
                                  .name = process.name,
                                  .bundleID = process.bundleID});
  }
  return Presentation::annotateSnapshot(snapshot, std::span(&snapshot, 1));
}

std::vector<ProcessDrain> membersThat(const DrainSnapshot& annotated,
                                      const std::function<bool(const ProcessDrain&)>& belong) {
  std::vector<ProcessDrain> members;
  std::copy_if(annotated.processes.begin(), annotated.processes.end(), std::back_inserter(members), belong);
  return members;
}

std::optional<Application> shownUnder(const std::string& wanted, const DrainSnapshot& annotated) {
  VisibleProcessGroupingResult grouping = Presentation::groupVisibleProcesses(annotated, {}, {});
  const auto row =
      std::find_if(grouping.processes.begin(), grouping.processes.end(),
                   [&](const ProcessDrain& visible) { return lowercased(*visible.canonicalName) == wanted; });
  if (row == grouping.processes.end()) return std::nullopt;
  const auto members = grouping.subprocessesByID.find(row->id());
  if (members != grouping.subprocessesByID.end()) return Application{*row, std::move(members->second)};
  // A row that stands for one process bears the group's name in place of the process's own.
  return Application{
      *row, membersThat(annotated, [&](const ProcessDrain& process) { return process.pid == row->pid; })};
}

std::optional<Application> withGroupKey(const std::string& wanted, const DrainSnapshot& annotated) {
  std::vector<ProcessDrain> members =
      membersThat(annotated, [&](const ProcessDrain& process) { return process.processGroupKey == wanted; });
  if (members.empty()) return std::nullopt;
  const ProcessDrain& first = members.front();
  const std::string name =
      *Presentation::bestVisibleRepresentativeSource(*first.canonicalName, first, members).canonicalName;
  ProcessDrain representative = Presentation::visibleRepresentative(name, first, members);
  return Application{std::move(representative), std::move(members)};
}

/// Whether it is shown under an application that lends it its key.
bool isHosted(const ProcessDrain& annotated) {
  return annotated.processGroupKey !=
         Presentation::processGroupKeySource(annotated, *annotated.canonicalName);
}

/// The group keys of the members, one for each application. Helpers have the key of their host already;
/// others belong together when they lie in one bundle, whatever bundle identifiers they have.
std::set<std::string> applicationKeys(const std::vector<ProcessDrain>& members) {
  std::unordered_map<std::string, std::string> keyByBundle;
  std::unordered_map<std::string, std::string> sameKey;
  for (const ProcessDrain& member : members) {
    const std::string& key = *member.processGroupKey;
    std::string& application = sameKey.try_emplace(key, key).first->second;
    const auto bundle = processAppBundlePath(member);
    if (bundle && !isHosted(member))
      application = keyByBundle.try_emplace(lowercased(*bundle), application).first->second;
  }
  std::set<std::string> keys;
  for (const auto& [key, application] : sameKey) keys.insert(application);
  return keys;
}

/// Programs that have no more in common than their name are not ended together.
void requireOneApplication(const std::string& name, const std::vector<ProcessDrain>& members) {
  const std::set<std::string> keys = applicationKeys(members);
  if (keys.size() > 1) {
    throw ApplicationQuitError(fmt::format("\"{}\" is the name of several: {}; \"quit KEY\" ends one of them",
                                           name, fmt::join(keys, ", ")));
  }
}

/// Adds what is shown elsewhere but shares the application's group key.
void addGroup(Application& application, const DrainSnapshot& annotated) {
  std::unordered_set<std::int64_t> pids;
  for (const ProcessDrain& member : application.members) pids.insert(member.pid);
  for (const ProcessDrain& process : annotated.processes) {
    if (process.processGroupKey == application.representative.processGroupKey && !pids.contains(process.pid))
      application.members.push_back(process);
  }
}

/// A helper's name must not end the application around it unasked.
[[noreturn]] void refuse(const std::string& name, const std::string& wanted, const DrainSnapshot& annotated) {
  std::set<std::string> hosts;
  for (const ProcessDrain& process : annotated.processes) {
    if (lowercased(*process.displayName) == wanted) hosts.insert(*process.canonicalName);
  }
  if (hosts.empty()) throw ApplicationQuitError(fmt::format("no application \"{}\" is running", name));
  throw ApplicationQuitError(fmt::format("\"{}\" is shown under {}; \"quit {}\" ends it all", name,
                                         fmt::join(hosts, ", "),
                                         hosts.size() == 1 ? *hosts.begin() : "NAME"));
}

Application findApplication(const DrainSnapshot& annotated, const std::string& name) {
  const std::string wanted = lowercased(trimmed(name));
  if (auto application = shownUnder(wanted, annotated)) {
    requireOneApplication(name, application->members);
    addGroup(*application, annotated);
    return *std::move(application);
  }
  if (auto application = withGroupKey(wanted, annotated)) return *std::move(application);
  refuse(name, wanted, annotated);
}

/// An independent application may well run the system's tools as helpers, and have executables named like
/// them. Apart from those each process counts, so that it doesn't matter which of them represents the others.
bool belongsToSystem(const Application& application) {
  const auto isSystems = [](const ProcessDrain& process) {
    return !isHosted(process) && isAppleSystemProcess(process);
  };
  return isSystems(application.representative) ||
         std::any_of(application.members.begin(), application.members.end(), [&](const ProcessDrain& member) {
           return !Presentation::isIndependentApp(member) && isSystems(member);
         });
}

/// Process 1, the process and all its parents.
std::unordered_set<std::int64_t> protectedProcesses(const std::vector<ProcessSample>& running,
                                                    std::int64_t ownPID) {
  std::unordered_map<std::int64_t, std::optional<std::int64_t>> parents;
  for (const ProcessSample& process : running) parents.emplace(process.pid, process.parentPID);
  std::unordered_set<std::int64_t> found{1};
  for (std::optional<std::int64_t> pid = ownPID; pid && found.insert(*pid).second;) {
    const auto parent = parents.find(*pid);
    pid = parent == parents.end() ? std::nullopt : parent->second;
  }
  return found;
}

}  // namespace

QuitPlan planQuit(const std::vector<ProcessSample>& running, std::string_view name, std::int64_t ownPID) {
  const DrainSnapshot annotated = annotatedSnapshot(running);
  Application application = findApplication(annotated, repairedUTF8(std::string(name)));
  QuitPlan plan;
  plan.application = *application.representative.displayName;
  plan.belongsToSystem = belongsToSystem(application);

  const std::unordered_set<std::int64_t> protectedPIDs = protectedProcesses(running, ownPID);
  const auto isProtected = [&](const ProcessDrain& member) { return protectedPIDs.contains(member.pid); };
  const auto spared = std::stable_partition(application.members.begin(), application.members.end(),
                                            [&](const ProcessDrain& member) { return !isProtected(member); });
  std::transform(spared, application.members.end(), std::back_inserter(plan.protectedPIDs),
                 [](const ProcessDrain& member) { return member.pid; });
  application.members.erase(spared, application.members.end());
  if (application.members.empty()) return plan;  // else the row's own number would count, protected or not

  std::unordered_map<std::int64_t, std::string> names;
  for (const ProcessDrain& member : application.members)
    names.emplace(member.pid, Presentation::executableLeaf(member));
  for (const std::int32_t pid :
       ProcessTerminationTargetResolver::targetPIDs(application.representative, application.members))
    plan.targets.push_back({pid, names[pid]});
  return plan;
}

}  // namespace quenzel
