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
  const std::size_t excess = entries_.size() - maxEntries;
  if (excess == 1) {  // what one look-up beyond the limit leaves: no list is needed to find the oldest
    entries_.erase(
        std::min_element(entries_.begin(), entries_.end(), [](const auto& left, const auto& right) {
          return left.second.resolvedAt < right.second.resolvedAt;
        }));
    return;
  }
  std::vector<std::pair<PointInTime, std::int32_t>> byAge;
  byAge.reserve(entries_.size());
  for (const auto& [pid, entry] : entries_) byAge.emplace_back(entry.resolvedAt, pid);
  const auto firstKept = byAge.begin() + static_cast<std::ptrdiff_t>(excess);
  std::nth_element(byAge.begin(), firstKept, byAge.end());
  for (auto oldest = byAge.begin(); oldest != firstKept; ++oldest) entries_.erase(oldest->second);
}

}  // namespace quenzel
