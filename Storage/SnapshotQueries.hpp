#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Base/PointInTime.hpp"
#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

class Database;

/// How whole snapshots are read, oldest first, within the caller's transaction. Each function throws
/// SnapshotStoreError.
namespace SnapshotQueries {
std::vector<DrainSnapshot> latest(Database& database, std::int64_t limit);
std::optional<DrainSnapshot> withID(Database& database, std::int64_t id);
/// Every `stride`-th of those from the cutoff to the anchor.
std::vector<DrainSnapshot> thinned(Database& database, PointInTime cutoff, PointInTime anchor,
                                   std::int64_t stride);

std::vector<std::int64_t> ids(Database& database);
std::optional<PointInTime> newestTimestamp(Database& database);
std::int64_t count(Database& database, PointInTime cutoff, PointInTime anchor);
/// The newest of those from the cutoff to the anchor.
std::optional<DrainSnapshot> newest(Database& database, PointInTime cutoff, PointInTime anchor);
}  // namespace SnapshotQueries

}  // namespace quenzel
