#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"
#include "Storage/SnapshotRows.hpp"

namespace quenzel {

class Database;

/// How valid snapshots are written. Each function throws SnapshotStoreError.
namespace SnapshotInsertion {

/// The newest stored snapshot's; none while there is none.
std::optional<LatestSnapshotSummaryRow> latestSummary(Database& database);

/// What to do with a snapshot whose moment may have been stored before.
struct Decision {
  enum class Kind { insert, replace, drop };
  Kind kind = Kind::insert;
  std::int64_t existingID = 0;  ///< of the row to be replaced
};
/// Looks at the newest stored snapshot only.
Decision decide(Database& database, const DrainSnapshot& snapshot);

/// Writes the rows of a snapshot.
/// @param ownBundlePrefix of the monitor's own processes' bundle identifiers, in lower case
void writeRows(Database& database, const DrainSnapshot& snapshot, std::string_view ownBundlePrefix);

/// The child rows go with it.
void deleteSnapshot(Database& database, std::int64_t id);

}  // namespace SnapshotInsertion

}  // namespace quenzel
