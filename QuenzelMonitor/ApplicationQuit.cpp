#include "QuenzelMonitor/ApplicationQuit.hpp"

#include <algorithm>
#include <functional>
#include <iterator>
#include <unordered_map>
#include <unordered_set>

#include <fmt/format.h>

#include "QuenzelMonitor/Console.hpp"
#include "SharedModels/Presentation/ProcessAttributionPresentationService.hpp"
#include "SharedModels/Presentation/ProcessTerminationTargetResolver.hpp"
#include "SharedModels/Runtime/Text.hpp"

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

std::vector<Application> applicationsIn(const DrainSnapshot& annotated) {
  VisibleProcessGroupingResult grouping = Presentation::groupVisibleProcesses(annotated, {}, {});
  std::vector<Application> applications;
  for (ProcessDrain& visible : grouping.processes) {
    const auto members = grouping.subprocessesByID.find(visible.id());
    const bool isOneProcess = members == grouping.subprocessesByID.end();
    applications.push_back({visible, isOneProcess ? std::vector{visible} : std::move(members->second)});
  }
  return applications;
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

[[noreturn]] void refuseAmbiguity(std::string_view name, const std::vector<Application>& found) {
  std::string candidates;
  for (const Application& candidate : found) {
    const std::size_t count = candidate.members.size();
    candidates += fmt::format("{}{} ({} process{})", candidates.empty() ? "" : ", ",
                              *candidate.representative.displayName, count, count == 1 ? "" : "es");
  }
  throw CommandError(fmt::format("\"{}\" may mean several applications: {}", name, candidates));
}

Application findApplication(const DrainSnapshot& annotated, std::string_view name) {
  const std::vector<Application> all = applicationsIn(annotated);
  const std::string wanted = lowercased(trimmed(name));
  const auto is = [&](const std::optional<std::string>& text) { return text && lowercased(*text) == wanted; };
  const auto hasMember = [](const Application& application, const auto& test) {
    return std::any_of(application.members.begin(), application.members.end(), test);
  };
  const std::function<bool(const Application&)> ways[] = {
      [&](const Application& one) { return is(one.representative.canonicalName); },
      [&](const Application& one) {
        return hasMember(one, [&](const ProcessDrain& member) { return is(member.displayName); });
      },
      [&](const Application& one) {
        return hasMember(one, [&](const ProcessDrain& member) { return is(member.processGroupKey); });
      },
  };
  for (const auto& matches : ways) {
    std::vector<Application> found;
    std::copy_if(all.begin(), all.end(), std::back_inserter(found), matches);
    if (found.size() > 1) refuseAmbiguity(name, found);
    if (!found.empty()) return std::move(found.front());
  }
  throw CommandError(fmt::format("no application \"{}\" is running", name));
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
  Application application = findApplication(annotated, name);
  addGroup(application, annotated);
  QuitPlan plan;
  plan.application = *application.representative.displayName;
  plan.belongsToSystem = isAppleSystemProcess(application.representative);

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
