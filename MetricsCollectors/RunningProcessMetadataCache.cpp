#include "MetricsCollectors/RunningProcessMetadataCache.hpp"

#include <utility>

namespace quenzel {
namespace {

constexpr std::uint64_t lookupsBetweenPrunings = 64;

}  // namespace

RunningProcessMetadataCache& RunningProcessMetadataCache::shared() {
  static RunningProcessMetadataCache cache;
  return cache;
}

std::optional<RunningProcessMetadata> RunningProcessMetadataCache::resolve(
    std::int32_t pid, PointInTime now, const RunningProcessMetadataLookup& lookup) {
  {
    const MutexLock guard(lock_);
    const auto known = entries_.find(pid);
    if (known != entries_.end()) {
      const Entry& entry = known->second;
      if (now - entry.resolvedAt <= (entry.metadata ? hitTTL : missTTL)) return entry.metadata;
    }
  }
  std::optional<RunningProcessMetadata> metadata = lookup(pid);
  const MutexLock guard(lock_);
  store(pid, {metadata, now});
  ++accessCount_;
  if (accessCount_ % lookupsBetweenPrunings == 0 || entries_.size() > maxEntries) pruneEntries(now);
  return metadata;
}

std::size_t RunningProcessMetadataCache::size() const {
  const MutexLock guard(lock_);
  return entries_.size();
}

void RunningProcessMetadataCache::store(std::int32_t pid, Entry entry) {
  const auto [known, isNew] = entries_.try_emplace(pid);
  if (!isNew) byAge_.erase({known->second.resolvedAt, pid});
  byAge_.emplace(entry.resolvedAt, pid);
  known->second = std::move(entry);
}

/// The hit lifetime counts for misses too: what is past its own is looked up again anyway.
void RunningProcessMetadataCache::pruneEntries(PointInTime now) {
  while (!byAge_.empty()) {
    const auto [resolvedAt, pid] = *byAge_.begin();
    if (byAge_.size() <= maxEntries && now - resolvedAt <= hitTTL) return;
    byAge_.erase(byAge_.begin());
    entries_.erase(pid);
  }
}

}  // namespace quenzel
