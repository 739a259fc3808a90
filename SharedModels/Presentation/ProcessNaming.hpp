#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>

#include "Base/TextMap.hpp"
#include "SharedModels/Presentation/ProcessIdentity.hpp"

// The naming passes: from the latest records of the processes to the name under which each is shown, with an
// application's helpers shown under the application. Pure functions; every string rule runs once a process.

namespace quenzel {

/// A process with everything that the naming passes ask of it.
struct PresentationSeed {
  ProcessDrain process = {};  ///< its latest record
  std::int64_t pid = 0;
  std::string name = {};
  std::string displayName = {};        ///< processDisplayName
  std::string executableLeafKey = {};  ///< the executable's file name in lower case
  int score = 0;                       ///< processPresentationScore
  bool isIndependentApp = false;

  bool operator==(const PresentationSeed&) const = default;
};

struct ExecutableAliasData {
  TextMap<std::string> aliasByExecutableLeaf;
  TextMap<int> bestScoreByExecutableLeaf;
};

/// The display names that were worked out so far; a name is computed once an identity, from the record that
/// comes first.
using DisplayNameCache = ProcessIdentityMap<std::string>;

using PreferredNameByPID = std::unordered_map<std::int64_t, std::string>;
/// For each process number the seed of its most recent record; the seeds outlive the map.
using LatestSeedByPID = std::unordered_map<std::int64_t, const PresentationSeed*>;

namespace ProcessAttributionPresentationService {

/// How many ancestors are looked at for the application that hosts a process.
inline constexpr int maxHostHops = 8;

/// The file name of the executable: the last path component of the trimmed name; what stands between the
/// parentheses of a bare name in parentheses; the display name of a process without a name.
std::string executableLeaf(const ProcessDrain& process);

/// Whether the process is an application of its own that hosts its children: a bundle that isn't the
/// system's, or else a bundle identifier that isn't Apple's.
bool isIndependentApp(const ProcessDrain& process);

PresentationSeed presentationSeed(ProcessDrain process);

/// processDisplayName, from the cache where it was asked for before. Valid as long as the cache.
const std::string& cachedDisplayName(const ProcessDrain& process, DisplayNameCache& displayNameCache);

/// The name of the application bundle that holds an executable of that file name, so that the same executable
/// started by a bare name is shown under the application. The highest score wins, of equal ones the first.
ExecutableAliasData buildExecutableAliasData(std::span<const PresentationSeed> seeds);

/// The aliases alone, straight from records. The cache is asked first and filled.
TextMap<std::string> buildExecutableAliasMap(std::span<const ProcessDrain> processes,
                                             DisplayNameCache& displayNameCache);

/// The name of the nearest ancestor that is an independent application: its preferred name where there is one
/// by now, else its display name. None for an independent application itself, and where no ancestor within
/// maxHostHops is one; a circle of parents ends the walk.
std::optional<std::string> hostApplicationDisplayName(const PresentationSeed& seed,
                                                      const PreferredNameByPID& preferredByPID,
                                                      const LatestSeedByPID& latestSeedByPID);

/// The name by which each process number is best known: its host's, else its executable's alias, else its
/// own, from the seed with the highest score, of equal ones the first. Seeds are visited in their order, and
/// a host lends its preferred name only to seeds that come after it.
PreferredNameByPID preferredDisplayNameByPID(std::span<const PresentationSeed> seeds,
                                             const TextMap<std::string>& aliasByExecutableLeaf,
                                             const LatestSeedByPID& latestSeedByPID);

/// The name under which the process is grouped: its host's, else the preferred name of its number, else its
/// executable's alias, else its own.
std::string canonicalDisplayName(const PresentationSeed& seed, const PreferredNameByPID& preferredByPID,
                                 const LatestSeedByPID& latestSeedByPID,
                                 const TextMap<std::string>& aliasByExecutableLeaf);

/// The walk up the parents that all host look-ups share.
/// @param ancestor takes a process number; gives a pointer to its record or seed, null when it is not known
/// @param isApp whether what `ancestor` gave is an independent application
/// @param parentOf its optional parent number
/// @return the nearest ancestor that is an application, or null
template <typename Ancestor, typename IsApp, typename ParentOf>
auto findHost(std::int64_t pid, std::optional<std::int64_t> parentPID, Ancestor ancestor, IsApp isApp,
              ParentOf parentOf) -> decltype(ancestor(pid)) {
  std::int64_t visited[maxHostHops + 1] = {pid};
  for (int hop = 0; hop < maxHostHops && parentPID; ++hop) {
    for (int earlier = 0; earlier <= hop; ++earlier) {
      if (visited[earlier] == *parentPID) return nullptr;
    }
    visited[hop + 1] = *parentPID;
    const auto found = ancestor(*parentPID);
    if (!found || isApp(*found)) return found;
    parentPID = parentOf(*found);
  }
  return nullptr;
}

}  // namespace ProcessAttributionPresentationService
}  // namespace quenzel
