#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "SharedModels/DetailsDataPipeline/DetailsPipelineOutput.hpp"
#include "SharedModels/GraphBuildEngine/GraphPeriod.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"

namespace quenzel {

/// An application, or a program that stands for itself, over a window; it may have ended since.
struct ApplicationUsage {
  std::string name = {};
  double energyWh = 0;
  double averageW = 0;  ///< over the sampled hours; 0 where there are none
  double latestW = 0;   ///< in the newest snapshot
  /// Its processes in the newest snapshot; those that drew next to nothing have no row in it.
  std::int64_t memberCount = 0;
};

/// What `quenzel show` shows of a window.
struct HistoryView {
  GraphPeriodSpec period = {};
  DetailsPipelineOutput details = {};
  GraphPeriodTrends trends = {};
  std::vector<ApplicationUsage> applications = {};  ///< most energy first
  /// The time of the newest snapshot where that is ahead of the clock, because the clock was ahead when it
  /// was recorded. The window then ends now.
  std::optional<PointInTime> newestInFuture = {};
};

/// What stands for the present where a window has no snapshot of its own: the newest of the history, else one
/// without any power, of this moment.
DrainSnapshot liveSnapshot(const SQLiteSnapshotStore& store);

/// Reads a window of the history that ends with its newest snapshot, but not in the future. Memory grows with
/// the window's snapshots and applications, not with their rows.
/// @throws SnapshotStoreError
HistoryView readHistoryView(const SQLiteSnapshotStore& store, const GraphPeriodSpec& period, PointInTime now);

/// Points in time are seconds since 2001, each beside the same in ISO 8601 (UTC).
nlohmann::ordered_json encodeHistoryView(const HistoryView& view);

}  // namespace quenzel
