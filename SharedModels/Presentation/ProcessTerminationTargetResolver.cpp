#include "SharedModels/Presentation/ProcessTerminationTargetResolver.hpp"

#include <algorithm>
#include <functional>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <tuple>

#include <fmt/format.h>

#include "Base/FatalError.hpp"
#include "Base/Text.hpp"
#include "SharedModels/Presentation/ProcessDrainPresentation.hpp"

namespace quenzel::ProcessTerminationTargetResolver {
namespace {

struct Target {
  Priority priority;
  std::int32_t pid;
};

/// What a member is compared with; each rule runs once for the group, however many members it has.
struct GroupTraits {
  explicit GroupTraits(const ProcessDrain& groupedProcess)
      : displayName(lowercased(processDisplayName(groupedProcess))) {
    if (groupedProcess.bundleID) bundleID = lowercased(*groupedProcess.bundleID);
  }

  std::string displayName;
  std::optional<std::string> bundleID = {};
};

Priority priorityWithin(const GroupTraits& group, const ProcessDrain& member,
                        const std::unordered_set<std::int64_t>& memberPIDs) {
  const bool sameBundle =
      member.bundleID && group.bundleID && lowercased(*member.bundleID) == *group.bundleID;
  const bool sameName = lowercased(processDisplayName(member)) == group.displayName;
  const bool isRoot = !member.parentPID || !memberPIDs.contains(*member.parentPID);
  return {sameBundle,
          sameName,
          directAppExecutableScore(member),
          hasBundleIDScore(member),
          isRoot,
          processPresentationScore(member)};
}

std::int32_t processNumber(std::int64_t pid) {
  using Range = std::numeric_limits<std::int32_t>;
  if (pid < Range::min() || pid > Range::max())
    fatalError(fmt::format("process number {} is out of range", pid));
  return static_cast<std::int32_t>(pid);
}

}  // namespace

Priority terminationPriority(const ProcessDrain& member, const ProcessDrain& groupedProcess,
                             const std::unordered_set<std::int64_t>& memberPIDs) {
  return priorityWithin(GroupTraits(groupedProcess), member, memberPIDs);
}

int directAppExecutableScore(const ProcessDrain& process) {
  const auto bundle = processAppBundlePath(process);
  return bundle && process.name.starts_with(*bundle + "/Contents/MacOS/") ? 1 : 0;
}

int hasBundleIDScore(const ProcessDrain& process) {
  return process.bundleID && !isBlank(*process.bundleID) ? 1 : 0;
}

std::vector<std::int32_t> prioritizedTerminationTargets(const ProcessDrain& groupedProcess,
                                                        std::span<const ProcessDrain> subprocesses) {
  std::unordered_set<std::int64_t> memberPIDs;
  for (const ProcessDrain& member : subprocesses) memberPIDs.insert(member.pid);
  const GroupTraits group(groupedProcess);
  std::vector<Target> targets;
  targets.reserve(subprocesses.size());
  for (const ProcessDrain& member : subprocesses) {
    targets.push_back({priorityWithin(group, member, memberPIDs), processNumber(member.pid)});
  }
  std::sort(targets.begin(), targets.end(), [](const Target& left, const Target& right) {
    return std::tie(right.priority, left.pid) < std::tie(left.priority, right.pid);
  });
  std::vector<std::int32_t> pids;
  std::unordered_set<std::int32_t> emitted;
  for (const Target& target : targets) {
    if (target.pid >= 1 && emitted.insert(target.pid).second) pids.push_back(target.pid);
  }
  return pids;
}

std::vector<std::int32_t> targetPIDs(const ProcessDrain& groupedProcess,
                                     std::span<const ProcessDrain> subprocesses) {
  std::vector<ProcessDrain> real;
  std::copy_if(subprocesses.begin(), subprocesses.end(), std::back_inserter(real),
               [](const ProcessDrain& member) { return member.pid >= 1; });
  if (!real.empty()) return prioritizedTerminationTargets(groupedProcess, real);
  if (groupedProcess.pid >= 1) return {processNumber(groupedProcess.pid)};
  return {};
}

}  // namespace quenzel::ProcessTerminationTargetResolver
