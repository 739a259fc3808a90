#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>

#include "Base/CancellationToken.hpp"
#include "Base/TextMap.hpp"
#include "SharedModels/Presentation/ProcessIdentity.hpp"

namespace quenzel {

/// The names of every process of a history. A value that nobody changes once it is built; its size goes with
/// the distinct processes, not with the rows they came from.
///
/// Order of the naming passes: processes are visited in the order in which their identity first appeared in
/// the history, each with its latest record. A later record changes what is known of a process but never its
/// turn, so a context that is extended comes out equal to one built from everything at once.
struct ProcessPresentationContext {
  TextMap<std::string> aliasByExecutableLeaf = {};  ///< file name in lower case to the application's name
  std::unordered_map<std::int64_t, ProcessDrain> latestProcessByPID = {};
  TextMap<std::string> displayNameByProcessID = {};    ///< keyed by ProcessDrain::id()
  TextMap<std::string> canonicalNameByProcessID = {};  ///< likewise

  struct LatestProcess {
    ProcessDrain process = {};
    std::size_t turn = 0;           ///< how many other identities appeared before
    bool isIndependentApp = false;  ///< of that record

    bool operator==(const LatestProcess&) const = default;
  };
  // Internal: the same by identity, for look-ups that build no key, and what an extension goes on from.
  ProcessIdentityMap<LatestProcess> latestProcessByIdentity = {};
  ProcessIdentityMap<std::string> displayNameByIdentity = {};
  ProcessIdentityMap<std::string> canonicalNameByIdentity = {};
  TextMap<int> bestAliasScoreByExecutableLeaf = {};

  bool operator==(const ProcessPresentationContext&) const = default;
};

namespace ProcessAttributionPresentationService {

// Snapshots come oldest first: of two records of a process the later one counts. A row costs one or two hash
// look-ups and a comparison of names; no text is built and no record copied until the walk is over.

ProcessPresentationContext makePresentationContext(std::span<const DrainSnapshot> snapshots);

/// The same for a task that may be given up: looks at the token once a snapshot, and returns an empty context
/// as soon as it is cancelled.
ProcessPresentationContext makeLatestOnlyPresentationContext(std::span<const DrainSnapshot> snapshots,
                                                             const CancellationToken& cancellation = {});
/// The same over snapshots that are not contiguous in memory; no pointer is null.
ProcessPresentationContext makeLatestOnlyContextInPlace(std::span<const DrainSnapshot* const> snapshots,
                                                        const CancellationToken& cancellation = {});

/// The context of a history that went on: equals the one built from the old snapshots followed by these, but
/// does not need the old ones. Costs the new rows and one run of the naming passes over all processes.
ProcessPresentationContext appendingPresentationContext(const ProcessPresentationContext& context,
                                                        std::span<const DrainSnapshot> snapshots);

/// The record of the nearest ancestor that is an independent application, found as
/// hostApplicationDisplayName finds it; null when there is none. Points into the context. Costs at most two
/// look-ups a hop, and runs no string rule for a record that the context was built from.
const ProcessDrain* hostApplicationProcess(const ProcessDrain& process,
                                           const ProcessPresentationContext& context);

}  // namespace ProcessAttributionPresentationService
}  // namespace quenzel
