#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include "Base/Mutex.hpp"
#include "Base/PointInTime.hpp"
#include "MetricsCollectors/RunningProcessMetadata.hpp"

namespace quenzel {

/// Looks up the metadata of a pid without remembering it.
using RunningProcessMetadataLookup = std::function<std::optional<RunningProcessMetadata>(std::int32_t pid)>;

/// Remembers metadata by pid: an answer for 120 s, the absence of one for 15 s. Thread-safe: one lock, not
/// held while looking up; two threads that miss on one pid both look it up, and the later answer stays.
class RunningProcessMetadataCache {
 public:
  static constexpr double hitTTL = 120;  ///< seconds, as the other one
  static constexpr double missTTL = 15;
  static constexpr std::size_t maxEntries = 4096;

  /// The cache that all collectors of this process share.
  static RunningProcessMetadataCache& shared();

  std::optional<RunningProcessMetadata> resolve(std::int32_t pid, PointInTime now,
                                                const RunningProcessMetadataLookup& lookup);

  std::size_t size() const;

 private:
  struct Entry {
    std::optional<RunningProcessMetadata> metadata;
    PointInTime resolvedAt;
  };

  void store(std::int32_t pid, Entry entry) REQUIRES(lock_);
  void pruneEntries(PointInTime now) REQUIRES(lock_);

  mutable Mutex lock_;
  std::unordered_map<std::int32_t, Entry> entries_ GUARDED_BY(lock_);
  std::set<std::pair<PointInTime, std::int32_t>> byAge_ GUARDED_BY(lock_);  ///< the entries, oldest first
  std::uint64_t accessCount_ GUARDED_BY(lock_) = 0;  ///< look-ups so far; hits do not count
};

}  // namespace quenzel
