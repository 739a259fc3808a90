#pragma once

#include <cstdint>
#include <vector>

#include "SharedModels/DetailsDataPipeline/DetailsPipelineOutput.hpp"
#include "SharedModels/GraphBuildEngine/PreparedSnapshot.hpp"

namespace quenzel {

class Database;

/// How the details views' figures are read, within the caller's transaction. Each function throws
/// SnapshotStoreError.
namespace DetailsQueries {

/// The snapshots from the cutoff to the anchor as the graphs need them, in ascending time.
std::vector<PreparedSnapshot> preparedSnapshots(Database& database, PointInTime cutoff, PointInTime anchor);

/// Costs a pass over the window's process rows; memory grows with its snapshots and its groups only.
DetailsPipelineOutput readModel(Database& database, PointInTime cutoff, PointInTime anchor,
                                std::int64_t maxAppSeries, const DrainSnapshot& fallbackSnapshot);

}  // namespace DetailsQueries

}  // namespace quenzel
