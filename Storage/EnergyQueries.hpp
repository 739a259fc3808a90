#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Base/PointInTime.hpp"
#include "SharedModels/DetailsDataPipeline/DetailsPipelineOutput.hpp"
#include "SharedModels/Snapshot/SnapshotHistoryReadModel.hpp"

namespace quenzel {

class Database;

/// Energy totals, integrated by SQLite itself with the trapezoid rule of EnergySlice: of two snapshots that
/// follow one another, the slice between them counts a minute at most, and nothing unless time went forward.
/// It is battery energy when the later one says so, or the earlier one where the later can't tell. Each
/// function throws SnapshotStoreError.
namespace EnergyQueries {
/// The statement of usageSummary.
/// @param ownBundlePrefix of the monitor's own processes' bundle identifiers, in lower case
std::string usageSummarySQL(std::string_view ownBundlePrefix);

/// Over the newest `limit` snapshots; the sql outlives the database.
EnergyUsageSummary usageSummary(Database& database, const std::string& sql, std::int64_t limit);

DetailsWindowSummary windowSummary(Database& database, PointInTime cutoff, PointInTime anchor);
}  // namespace EnergyQueries

}  // namespace quenzel
