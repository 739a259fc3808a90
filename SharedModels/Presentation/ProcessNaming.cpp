#include "SharedModels/Presentation/ProcessNaming.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

#include "Base/Text.hpp"
#include "SharedModels/Presentation/AppleProcessDetector.hpp"
#include "SharedModels/Presentation/ProcessDrainPresentation.hpp"

namespace quenzel::ProcessAttributionPresentationService {
namespace {

/// Whether some folder on the path ends in ".app" in any case.
bool liesInAppFolder(std::string_view path) {
  constexpr std::string_view mark = ".app/";
  for (std::size_t dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.', dot + 1)) {
    if (equalsIgnoringASCIICase(path.substr(dot, mark.size()), mark)) return true;
  }
  return false;
}

struct AliasCandidate {
  std::string_view name;
  std::string_view leafKey;
  std::string_view displayName;
  int score;
};

ExecutableAliasData aliasDataFor(std::size_t processCount) {
  ExecutableAliasData data;
  data.aliasByExecutableLeaf.reserve(processCount);
  data.bestScoreByExecutableLeaf.reserve(processCount);
  return data;
}

void offerAlias(const AliasCandidate& candidate, ExecutableAliasData& data) {
  if (!candidate.name.starts_with('/') || !liesInAppFolder(candidate.name)) return;
  if (candidate.leafKey.empty() || candidate.displayName.empty()) return;
  const auto best = data.bestScoreByExecutableLeaf.find(candidate.leafKey);
  if (best != data.bestScoreByExecutableLeaf.end() && best->second >= candidate.score) return;
  const std::string leaf(candidate.leafKey);
  data.bestScoreByExecutableLeaf[leaf] = candidate.score;
  data.aliasByExecutableLeaf[leaf] = candidate.displayName;
}

bool isIndependentApp(const ProcessDrain& process, const std::optional<std::string>& bundlePath,
                      std::string_view displayName) {
  if (bundlePath)
    return !AppleProcessDetector::isAppleSystemProcess(*bundlePath, process.bundleID, displayName);
  return process.bundleID && !lowercased(*process.bundleID).starts_with("com.apple.");
}

const std::string* textAt(const TextMap<std::string>& map, std::string_view key) {
  const auto entry = map.find(key);
  return entry == map.end() ? nullptr : &entry->second;
}

}  // namespace

std::string executableLeaf(const ProcessDrain& process) {
  const std::string_view name = trimmed(process.name);
  if (name.empty()) return processDisplayName(process);
  if (name.size() >= 2 && name.front() == '(' && name.back() == ')')
    return std::string(name.substr(1, name.size() - 2));
  return std::string(lastPathComponent(name));
}

bool isIndependentApp(const ProcessDrain& process) {
  const auto bundlePath = processAppBundlePath(process);
  return isIndependentApp(process, bundlePath, processDisplayName(process, bundlePath));
}

PresentationSeed presentationSeed(ProcessDrain process) {
  const auto bundlePath = processAppBundlePath(process);
  PresentationSeed seed;
  seed.pid = process.pid;
  seed.name = process.name;
  seed.displayName = processDisplayName(process, bundlePath);
  seed.executableLeafKey = lowercased(executableLeaf(process));
  seed.score = processPresentationScore(process, bundlePath);
  seed.isIndependentApp = isIndependentApp(process, bundlePath, seed.displayName);
  seed.process = std::move(process);
  return seed;
}

const std::string& cachedDisplayName(const ProcessDrain& process, DisplayNameCache& displayNameCache) {
  const auto known = displayNameCache.find(identityOf(process));
  if (known != displayNameCache.end()) return known->second;
  const ProcessIdentity identity{process.pid, process.name};
  return displayNameCache.emplace(identity, processDisplayName(process)).first->second;
}

ExecutableAliasData buildExecutableAliasData(std::span<const PresentationSeed> seeds) {
  ExecutableAliasData data = aliasDataFor(seeds.size());
  for (const PresentationSeed& seed : seeds)
    offerAlias({seed.name, seed.executableLeafKey, seed.displayName, seed.score}, data);
  return data;
}

TextMap<std::string> buildExecutableAliasMap(std::span<const ProcessDrain> processes,
                                             DisplayNameCache& displayNameCache) {
  ExecutableAliasData data = aliasDataFor(processes.size());
  for (const ProcessDrain& process : processes) {
    offerAlias({process.name, lowercased(executableLeaf(process)),
                cachedDisplayName(process, displayNameCache), processPresentationScore(process)},
               data);
  }
  return std::move(data.aliasByExecutableLeaf);
}

std::optional<std::string> hostApplicationDisplayName(const PresentationSeed& seed,
                                                      const PreferredNameByPID& preferredByPID,
                                                      const LatestSeedByPID& latestSeedByPID) {
  if (seed.isIndependentApp) return std::nullopt;
  const auto ancestor = [&](std::int64_t pid) -> const PresentationSeed* {
    const auto found = latestSeedByPID.find(pid);
    return found == latestSeedByPID.end() ? nullptr : found->second;
  };
  const PresentationSeed* const host = findHost(
      seed.pid, seed.process.parentPID, ancestor,
      [](const PresentationSeed& other) { return other.isIndependentApp; },
      [](const PresentationSeed& other) { return other.process.parentPID; });
  if (!host) return std::nullopt;
  const auto preferred = preferredByPID.find(host->pid);
  return preferred == preferredByPID.end() ? host->displayName : preferred->second;
}

PreferredNameByPID preferredDisplayNameByPID(std::span<const PresentationSeed> seeds,
                                             const TextMap<std::string>& aliasByExecutableLeaf,
                                             const LatestSeedByPID& latestSeedByPID) {
  PreferredNameByPID preferred;
  std::unordered_map<std::int64_t, int> bestScores;
  preferred.reserve(seeds.size());
  bestScores.reserve(seeds.size());
  for (const PresentationSeed& seed : seeds) {
    const auto [best, isFirst] = bestScores.try_emplace(seed.pid, seed.score);
    if (!isFirst && best->second >= seed.score) continue;
    best->second = seed.score;
    std::optional<std::string> candidate = hostApplicationDisplayName(seed, preferred, latestSeedByPID);
    if (!candidate) {
      const std::string* const alias = textAt(aliasByExecutableLeaf, seed.executableLeafKey);
      candidate = alias ? *alias : seed.displayName;
    }
    preferred.insert_or_assign(seed.pid, *std::move(candidate));
  }
  return preferred;
}

std::string canonicalDisplayName(const PresentationSeed& seed, const PreferredNameByPID& preferredByPID,
                                 const LatestSeedByPID& latestSeedByPID,
                                 const TextMap<std::string>& aliasByExecutableLeaf) {
  if (auto host = hostApplicationDisplayName(seed, preferredByPID, latestSeedByPID)) return *std::move(host);
  const auto preferred = preferredByPID.find(seed.pid);
  if (preferred != preferredByPID.end() && !preferred->second.empty()) return preferred->second;
  const std::string* const alias = textAt(aliasByExecutableLeaf, seed.executableLeafKey);
  return alias && !alias->empty() ? *alias : seed.displayName;
}

}  // namespace quenzel::ProcessAttributionPresentationService
