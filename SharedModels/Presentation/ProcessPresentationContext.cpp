#include "SharedModels/Presentation/ProcessPresentationContext.hpp"

#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "SharedModels/Presentation/ProcessNaming.hpp"

namespace quenzel::ProcessAttributionPresentationService {
namespace {

/// Finds the latest record of every identity and of every number without copying any: it points into the
/// snapshots and the context that it is fed, which outlive it.
class LatestProcessWalk {
 public:
  /// The latest use of a process number.
  struct Incarnation {
    std::size_t index = 0;       ///< into records()
    std::string_view name = {};  ///< at hand for comparison
  };

  LatestProcessWalk() = default;
  explicit LatestProcessWalk(const ProcessPresentationContext& context)
      : records_(context.latestProcessByIdentity.size()) {
    indexByIdentity_.reserve(records_.size());
    incarnationByPID_.reserve(records_.size());
    for (const auto& [identity, latest] : context.latestProcessByIdentity) {
      records_[latest.turn] = &latest.process;
      indexByIdentity_.emplace(ProcessIdentityView{identity.pid, identity.name}, latest.turn);
    }
    for (const auto& [pid, process] : context.latestProcessByPID) {
      const auto known = indexByIdentity_.find(identityOf(process));
      if (known != indexByIdentity_.end())
        incarnationByPID_.emplace(pid, Incarnation{known->second, process.name});
    }
  }

  void visit(const DrainSnapshot& snapshot) {
    for (const ProcessDrain& row : snapshot.processes) {
      const auto [entry, isNewPID] = incarnationByPID_.try_emplace(row.pid);
      Incarnation& incarnation = entry->second;
      // Nearly always the number still belongs to the same executable, and the identity needs no look-up.
      // The name that it is compared with stays that of the first such row, near in memory.
      if (isNewPID || incarnation.name != row.name) incarnation = {indexOf(row), row.name};
      records_[incarnation.index] = &row;
    }
  }

  /// In the order in which they first appeared.
  const std::vector<const ProcessDrain*>& records() const { return records_; }
  const std::unordered_map<std::int64_t, Incarnation>& incarnationByPID() const { return incarnationByPID_; }

 private:
  std::size_t indexOf(const ProcessDrain& row) {
    const auto [entry, isNew] = indexByIdentity_.try_emplace(identityOf(row), records_.size());
    if (isNew) records_.push_back(&row);
    return entry->second;
  }

  std::vector<const ProcessDrain*> records_;
  std::unordered_map<ProcessIdentityView, std::size_t, ProcessIdentityHash> indexByIdentity_;
  std::unordered_map<std::int64_t, Incarnation> incarnationByPID_;
};

std::vector<PresentationSeed> seedsOf(const std::vector<const ProcessDrain*>& records) {
  std::vector<PresentationSeed> seeds;
  seeds.reserve(records.size());
  for (const ProcessDrain* record : records) seeds.push_back(presentationSeed(*record));
  return seeds;
}

/// The naming passes over what a walk found.
ProcessPresentationContext named(const LatestProcessWalk& walk) {
  std::vector<PresentationSeed> seeds = seedsOf(walk.records());
  LatestSeedByPID latestSeedByPID;
  latestSeedByPID.reserve(walk.incarnationByPID().size());
  for (const auto& [pid, incarnation] : walk.incarnationByPID())
    latestSeedByPID.emplace(pid, &seeds[incarnation.index]);

  ExecutableAliasData aliases = buildExecutableAliasData(seeds);
  const PreferredNameByPID preferred =
      preferredDisplayNameByPID(seeds, aliases.aliasByExecutableLeaf, latestSeedByPID);

  ProcessPresentationContext context;
  context.latestProcessByPID.reserve(latestSeedByPID.size());
  context.displayNameByProcessID.reserve(seeds.size());
  context.canonicalNameByProcessID.reserve(seeds.size());
  context.latestProcessByIdentity.reserve(seeds.size());
  context.displayNameByIdentity.reserve(seeds.size());
  context.canonicalNameByIdentity.reserve(seeds.size());
  for (const PresentationSeed& seed : seeds) {
    const std::string canonicalName =
        canonicalDisplayName(seed, preferred, latestSeedByPID, aliases.aliasByExecutableLeaf);
    std::string processID = seed.process.id();
    context.displayNameByIdentity.try_emplace({seed.pid, seed.name}, seed.displayName);
    context.canonicalNameByIdentity.try_emplace({seed.pid, seed.name}, canonicalName);
    context.displayNameByProcessID.emplace(processID, seed.displayName);
    context.canonicalNameByProcessID.emplace(std::move(processID), canonicalName);
  }
  for (const auto& [pid, seed] : latestSeedByPID) context.latestProcessByPID.emplace(pid, seed->process);
  for (std::size_t turn = 0; turn < seeds.size(); ++turn) {
    PresentationSeed& seed = seeds[turn];
    context.latestProcessByIdentity.try_emplace(
        {seed.pid, std::move(seed.name)},
        ProcessPresentationContext::LatestProcess{std::move(seed.process), turn, seed.isIndependentApp});
  }
  context.aliasByExecutableLeaf = std::move(aliases.aliasByExecutableLeaf);
  context.bestAliasScoreByExecutableLeaf = std::move(aliases.bestScoreByExecutableLeaf);
  return context;
}

/// Known already for a record that says the same as the latest one of its process.
bool isIndependentAppIn(const ProcessPresentationContext& context, const ProcessDrain& process) {
  const auto says = [](const ProcessDrain& record) { return std::tie(record.bundleID, record.displayName); };
  const auto latest = context.latestProcessByIdentity.find(identityOf(process));
  const bool isKnown =
      latest != context.latestProcessByIdentity.end() && says(latest->second.process) == says(process);
  return isKnown ? latest->second.isIndependentApp : isIndependentApp(process);
}

template <typename Snapshots, typename AddressOf>
ProcessPresentationContext namedUnlessCancelled(const Snapshots& snapshots,
                                                const CancellationToken& cancellation, AddressOf addressOf) {
  LatestProcessWalk walk;
  for (const auto& snapshot : snapshots) {
    if (cancellation.isCancelled()) return {};
    walk.visit(*addressOf(snapshot));
  }
  return named(walk);
}

}  // namespace

ProcessPresentationContext makePresentationContext(std::span<const DrainSnapshot> snapshots) {
  LatestProcessWalk walk;
  for (const DrainSnapshot& snapshot : snapshots) walk.visit(snapshot);
  return named(walk);
}

ProcessPresentationContext makeLatestOnlyPresentationContext(std::span<const DrainSnapshot> snapshots,
                                                             const CancellationToken& cancellation) {
  return namedUnlessCancelled(snapshots, cancellation,
                              [](const DrainSnapshot& snapshot) { return &snapshot; });
}

ProcessPresentationContext makeLatestOnlyContextInPlace(std::span<const DrainSnapshot* const> snapshots,
                                                        const CancellationToken& cancellation) {
  return namedUnlessCancelled(snapshots, cancellation,
                              [](const DrainSnapshot* snapshot) { return snapshot; });
}

ProcessPresentationContext appendingPresentationContext(const ProcessPresentationContext& context,
                                                        std::span<const DrainSnapshot> snapshots) {
  LatestProcessWalk walk(context);
  for (const DrainSnapshot& snapshot : snapshots) walk.visit(snapshot);
  return named(walk);
}

const ProcessDrain* hostApplicationProcess(const ProcessDrain& process,
                                           const ProcessPresentationContext& context) {
  if (isIndependentAppIn(context, process)) return nullptr;
  const auto ancestor = [&](std::int64_t pid) -> const ProcessDrain* {
    const auto found = context.latestProcessByPID.find(pid);
    return found == context.latestProcessByPID.end() ? nullptr : &found->second;
  };
  return findHost(
      process.pid, process.parentPID, ancestor,
      [&](const ProcessDrain& other) { return isIndependentAppIn(context, other); },
      [](const ProcessDrain& other) { return other.parentPID; });
}

}  // namespace quenzel::ProcessAttributionPresentationService
