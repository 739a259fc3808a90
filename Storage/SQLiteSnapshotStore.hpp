#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Base/Mutex.hpp"
#include "Base/PointInTime.hpp"
#include "SharedModels/DetailsDataPipeline/DetailsPipelineOutput.hpp"
#include "SharedModels/GraphBuildEngine/PreparedSnapshot.hpp"
#include "SharedModels/Snapshot/DrainSnapshot.hpp"
#include "SharedModels/Snapshot/SnapshotHistoryReadModel.hpp"
#include "Storage/Database.hpp"
#include "Storage/EstimateTracking.hpp"

namespace quenzel {

enum class SnapshotInsertOutcome {
  inserted,
  replacedNearDuplicate,  ///< a snapshot no more than half a second away was no better, and went
  droppedNearDuplicate,   ///< a snapshot no more than half a second away was better: nothing was written
};

/// The case's own name.
std::string_view rawValue(SnapshotInsertOutcome outcome);

/// The history of published snapshots, and the estimates made on it, in one SQLite database that several
/// processes may share (write-ahead logging; a writer waits up to 5 s for another).
///
/// A store that writes notices when the database is removed or replaced while it has it open: it opens the
/// file of that name anew, makes its tables where they are missing, logs that it did, and what was to be
/// written is written there.
///
/// Thread-safe: every operation holds the store's one lock from its beginning to its end. Each throws
/// SnapshotStoreError, and then has changed nothing.
class SQLiteSnapshotStore {
 public:
  enum class Mode {
    readOnly,         ///< nothing is created or altered
    readWriteCreate,  ///< creates folder (mode 0777), file (0666) and tables where they are missing
  };

  /// A writing store finds tables of another schema version worthless: all snapshots are dropped and the
  /// tables made anew. Estimates stay.
  SQLiteSnapshotStore(const std::string& path, Mode mode);

  const std::string& path() const { return path_; }

  /// Stores a snapshot whole or not at all. Every process row needs a display name, a canonical name and a
  /// group key that are not blank. Costs a transaction with one row a process, hidden workload and source.
  SnapshotInsertOutcome insert(const DrainSnapshot& snapshot);

  /// Deletes the snapshots older than a moment (not those of that very moment), gives their space back to the
  /// file system, and returns how many there were. Rewrites the whole file when there were any.
  std::int64_t purgeSnapshots(PointInTime olderThan);

  // The history. Snapshots come oldest first. Fields without a column are absent or, of the components, 0.

  /// The newest snapshots, `limit` of them; none for a limit below 1.
  std::vector<DrainSnapshot> fetchLatest(std::int64_t limit) const;
  std::optional<DrainSnapshot> fetchSnapshot(std::int64_t id) const;
  /// The ids of all snapshots, oldest first.
  std::vector<std::int64_t> fetchSnapshotIDs() const;
  SnapshotHistoryReadModel fetchHistoryReadModel(std::int64_t limit) const;
  /// Energy over the newest snapshots, `limit` of them.
  EnergyUsageSummary fetchEnergyUsageSummary(std::int64_t limit) const;

  /// The snapshots of the window that ends at the anchor (by default the newest snapshot's time), thinned to
  /// every n-th from the oldest on so that about `maxRows` (1 to 10,000) and fewer than twice as many are
  /// left. Only what is returned is read whole.
  std::vector<DrainSnapshot> fetchWindowSnapshots(double windowSeconds, std::int64_t maxRows,
                                                  std::optional<PointInTime> anchorTimestamp) const;

  /// The same window without the rows of its snapshots, all of them.
  std::vector<PreparedSnapshot> fetchPreparedSnapshots(double windowSeconds,
                                                       std::optional<PointInTime> anchorTimestamp) const;

  /// Everything that the details views show of a window; of the fallback snapshot alone when there is no
  /// history at all.
  DetailsPipelineOutput fetchDetailsReadModel(double windowSeconds, std::int64_t maxAppSeries,
                                              std::optional<PointInTime> anchorTimestamp,
                                              const DrainSnapshot& fallbackSnapshot) const;

  /// Energy totals of the snapshots from the cutoff to the anchor, both included.
  DetailsWindowSummary fetchDetailsWindowSummary(PointInTime cutoffTimestamp,
                                                 PointInTime anchorTimestamp) const;

  // Estimates.

  /// Stores an estimate as pending and returns its id.
  std::int64_t insert(const EstimateTrackingEstimateInput& estimate);
  /// Returns whether there is an estimate of that id; nothing changes when there is none.
  bool applyEvaluation(std::int64_t recordID, const EstimateTrackingEvaluationInput& evaluation);
  /// The pending estimates, oldest first: the order in which they fall due.
  std::vector<EstimateTrackingRow> fetchPendingEstimates(std::int64_t limit) const;
  /// All estimates, newest first.
  std::vector<EstimateTrackingRow> fetchEstimateRows(std::int64_t limit) const;

  /// Ends whatever statement still runs two seconds after the function first returned true, with the error
  /// "interrupted". The function is called from within every operation, and outlives the store.
  void interruptWhen(std::function<bool()> isEndWanted);

  /// Opens the shared database to every local user: see SharedSnapshotSidecarPermissions.
  static void ensureSharedSnapshotSidecarPermissions(const std::string& forDatabaseAtPath) noexcept;

 private:
  Database& database() const REQUIRES(lock_);
  bool isReplaced() const REQUIRES(lock_);
  void reopenIfReplaced() REQUIRES(lock_);
  template <typename Change>
  auto change(Change change) REQUIRES(lock_);

  const std::string path_;
  const Mode mode_;
  const std::string ownBundlePrefix_;  ///< in lower case
  const std::string usageSummarySQL_;  ///< kept with the statement that is prepared from it
  mutable Mutex lock_;
  std::function<bool()> isEndWanted_ GUARDED_BY(lock_);
  mutable std::unique_ptr<Database> connection_ GUARDED_BY(lock_);  ///< none after a failed opening
};

}  // namespace quenzel
