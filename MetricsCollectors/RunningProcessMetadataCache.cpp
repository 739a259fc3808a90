#include "MetricsCollectors/RunningProcessMetadataCache.hpp"

#include <algorithm>
#include <utility>
#include <vector>

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
    const platform::MutexLock guard(lock_);
    const auto known = entries_.find(pid);
    if (known != entries_.end()) {
      const Entry& entry = known->second;
      if (now - entry.resolvedAt <= (entry.metadata ? hitTTLSeconds : missTTLSeconds)) return entry.metadata;
    }
  }
  std::optional<RunningProcessMetadata> metadata = lookup(pid);
  const platform::MutexLock guard(lock_);
  entries_.insert_or_assign(pid, Entry{metadata, now});
  ++accessCount_;
  if (accessCount_ % lookupsBetweenPrunings == 0 || entries_.size() > maxEntries) pruneEntries(now);
  return metadata;
}

std::size_t RunningProcessMetadataCache::size() const {
  const platform::MutexLock guard(lock_);
  return entries_.size();
}

void RunningProcessMetadataCache::pruneEntries(PointInTime now) {
  std::erase_if(entries_, [&](const auto& item) { return now - item.second.resolvedAt > hitTTLSeconds; });
  if (entries_.size() <= maxEntries) return;
  std::vector<std::pair<std::int32_t, PointInTime>> newestFirst;
  newestFirst.reserve(entries_.size());
  for (const auto& [pid, entry] : entries_) newestFirst.emplace_back(pid, entry.resolvedAt);
  std::stable_sort(newestFirst.begin(), newestFirst.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  for (std::size_t index = maxEntries; index < newestFirst.size(); ++index)
    entries_.erase(newestFirst[index].first);
}

}  // namespace quenzel
