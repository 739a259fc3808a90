#include "Storage/SQLiteSnapshotStore.hpp"

#include <algorithm>
#include <utility>

#include "SharedModels/DetailsDataPipeline/DetailsReadModel.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"
#include "SharedModels/Runtime/Text.hpp"
#include "Storage/DetailsQueries.hpp"
#include "Storage/EnergyQueries.hpp"
#include "Storage/SharedSnapshotSidecarPermissions.hpp"
#include "Storage/SnapshotInsertion.hpp"
#include "Storage/SnapshotQueries.hpp"
#include "Storage/SnapshotSchema.hpp"
#include "Storage/SnapshotStoreError.hpp"
#include "Storage/SnapshotValidation.hpp"

namespace quenzel {
namespace {

using platform::MutexLock;

constexpr std::string_view deleteOlder = "DELETE FROM snapshots WHERE timestamp < ?;";

Database openDatabase(const std::string& path, SQLiteSnapshotStore::Mode mode) {
  if (path.empty()) throw SnapshotStoreError::invalidPath();
  if (mode == SQLiteSnapshotStore::Mode::readOnly) return {path, Database::Access::readOnly};
  SnapshotSchema::prepareFile(path);
  Database database(path, Database::Access::readWriteCreate);
  SnapshotSchema::configureForWriting(database);
  SnapshotSchema::ensure(database);
  return database;
}

struct Window {
  PointInTime cutoff;
  PointInTime anchor;
};

double secondsOfWindow(double windowSeconds) { return std::max(windowSeconds, 1.0); }

/// The window that ends at a moment, by default the newest snapshot's; none when there is no snapshot to be
/// the end.
std::optional<Window> windowEndingAt(Database& database, double windowSeconds,
                                     std::optional<PointInTime> anchorTimestamp) {
  const auto anchor = anchorTimestamp ? anchorTimestamp : SnapshotQueries::newestTimestamp(database);
  if (!anchor) return {};
  return Window{*anchor - secondsOfWindow(windowSeconds), *anchor};
}

/// Housekeeping after a deletion, whose success nobody depends on.
void tryExecute(Database& database, const char* sql) noexcept {
  try {
    database.execute(sql);
  } catch (const SnapshotStoreError&) {  // NOLINT(bugprone-empty-catch): the next purge does it
  }
}

}  // namespace

std::string_view rawValue(SnapshotInsertOutcome outcome) {
  switch (outcome) {
    case SnapshotInsertOutcome::inserted:
      return "inserted";
    case SnapshotInsertOutcome::replacedNearDuplicate:
      return "replacedNearDuplicate";
    case SnapshotInsertOutcome::droppedNearDuplicate:
      return "droppedNearDuplicate";
  }
  return {};
}

SQLiteSnapshotStore::SQLiteSnapshotStore(const std::string& path, Mode mode)
    : path_(path),
      ownBundlePrefix_(lowercased(AppConfiguration::bundleIdentifierPrefix())),
      usageSummarySQL_(EnergyQueries::usageSummarySQL(ownBundlePrefix_)),
      database_(openDatabase(path, mode)) {}

SnapshotInsertOutcome SQLiteSnapshotStore::insert(const DrainSnapshot& snapshot) {
  using Kind = SnapshotInsertion::Decision::Kind;
  const MutexLock guard(lock_);
  validateForInsertion(snapshot);
  const auto decision = SnapshotInsertion::decide(database_, snapshot);
  if (decision.kind == Kind::drop) return SnapshotInsertOutcome::droppedNearDuplicate;

  WriteTransaction transaction(database_);
  if (decision.kind == Kind::replace) SnapshotInsertion::deleteSnapshot(database_, decision.existingID);
  SnapshotInsertion::writeRows(database_, snapshot, ownBundlePrefix_);
  transaction.commit();
  // SQLite may just have created the files beside the database.
  if (database_.changes() > 0) ensureSharedSnapshotSidecarPermissions(path_);
  return decision.kind == Kind::replace ? SnapshotInsertOutcome::replacedNearDuplicate
                                        : SnapshotInsertOutcome::inserted;
}

std::int64_t SQLiteSnapshotStore::purgeSnapshots(PointInTime olderThan) {
  const MutexLock guard(lock_);
  database_.prepared(deleteOlder).run(olderThan.secondsSince1970());
  const std::int64_t deleted = database_.changes();
  if (deleted > 0) {
    tryExecute(database_, "PRAGMA wal_checkpoint(TRUNCATE);");
    tryExecute(database_, "VACUUM;");
  }
  return deleted;
}

std::vector<DrainSnapshot> SQLiteSnapshotStore::fetchLatest(std::int64_t limit) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database_);
  return SnapshotQueries::latest(database_, limit);
}

std::optional<DrainSnapshot> SQLiteSnapshotStore::fetchSnapshot(std::int64_t id) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database_);
  return SnapshotQueries::withID(database_, id);
}

std::vector<std::int64_t> SQLiteSnapshotStore::fetchSnapshotIDs() const {
  const MutexLock guard(lock_);
  return SnapshotQueries::ids(database_);
}

SnapshotHistoryReadModel SQLiteSnapshotStore::fetchHistoryReadModel(std::int64_t limit) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database_);
  return {SnapshotQueries::latest(database_, limit),
          EnergyQueries::usageSummary(database_, usageSummarySQL_, limit)};
}

EnergyUsageSummary SQLiteSnapshotStore::fetchEnergyUsageSummary(std::int64_t limit) const {
  const MutexLock guard(lock_);
  return EnergyQueries::usageSummary(database_, usageSummarySQL_, limit);
}

std::vector<DrainSnapshot> SQLiteSnapshotStore::fetchWindowSnapshots(
    double windowSeconds, std::int64_t maxRows, std::optional<PointInTime> anchorTimestamp) const {
  constexpr std::int64_t mostRows = 10000;
  const std::int64_t rows = std::clamp<std::int64_t>(maxRows, 1, mostRows);
  const MutexLock guard(lock_);
  const ReadTransaction reading(database_);
  const auto window = windowEndingAt(database_, windowSeconds, anchorTimestamp);
  if (!window) return {};
  const std::int64_t count = SnapshotQueries::count(database_, window->cutoff, window->anchor);
  if (count < 1) return {};
  const std::int64_t stride = std::max<std::int64_t>(count / rows, 1);
  return SnapshotQueries::thinned(database_, window->cutoff, window->anchor, stride);
}

std::vector<PreparedSnapshot> SQLiteSnapshotStore::fetchPreparedSnapshots(
    double windowSeconds, std::optional<PointInTime> anchorTimestamp) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database_);
  const auto window = windowEndingAt(database_, windowSeconds, anchorTimestamp);
  if (!window) return {};
  return DetailsQueries::preparedSnapshots(database_, window->cutoff, window->anchor);
}

DetailsPipelineOutput SQLiteSnapshotStore::fetchDetailsReadModel(
    double windowSeconds, std::int64_t maxAppSeries, std::optional<PointInTime> anchorTimestamp,
    const DrainSnapshot& fallbackSnapshot) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database_);
  const auto window = windowEndingAt(database_, windowSeconds, anchorTimestamp);
  if (!window) return emptyDetailsReadModel(secondsOfWindow(windowSeconds), fallbackSnapshot);
  return DetailsQueries::readModel(database_, window->cutoff, window->anchor, maxAppSeries, fallbackSnapshot);
}

DetailsWindowSummary SQLiteSnapshotStore::fetchDetailsWindowSummary(PointInTime cutoffTimestamp,
                                                                    PointInTime anchorTimestamp) const {
  const MutexLock guard(lock_);
  return EnergyQueries::windowSummary(database_, cutoffTimestamp, anchorTimestamp);
}

std::int64_t SQLiteSnapshotStore::insert(const EstimateTrackingEstimateInput& estimate) {
  const MutexLock guard(lock_);
  return EstimateTracking::insert(database_, estimate);
}

bool SQLiteSnapshotStore::applyEvaluation(std::int64_t recordID,
                                          const EstimateTrackingEvaluationInput& evaluation) {
  const MutexLock guard(lock_);
  return EstimateTracking::applyEvaluation(database_, recordID, evaluation);
}

std::vector<EstimateTrackingRow> SQLiteSnapshotStore::fetchPendingEstimates(std::int64_t limit) const {
  const MutexLock guard(lock_);
  return EstimateTracking::fetchPending(database_, limit);
}

std::vector<EstimateTrackingRow> SQLiteSnapshotStore::fetchEstimateRows(std::int64_t limit) const {
  const MutexLock guard(lock_);
  return EstimateTracking::fetchNewest(database_, limit);
}

void SQLiteSnapshotStore::ensureSharedSnapshotSidecarPermissions(
    const std::string& forDatabaseAtPath) noexcept {
  quenzel::ensureSharedSnapshotSidecarPermissions(forDatabaseAtPath);
}

}  // namespace quenzel
