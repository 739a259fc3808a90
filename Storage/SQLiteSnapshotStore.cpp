#include "Storage/SQLiteSnapshotStore.hpp"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "Base/Text.hpp"
#include "SharedModels/DetailsDataPipeline/DetailsReadModel.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"
#include "Storage/DatabaseFiles.hpp"
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

constexpr std::string_view logComponent = "SnapshotStore";

constexpr std::string_view deleteOlder = "DELETE FROM snapshots WHERE timestamp < ?;";

std::unique_ptr<Database> openDatabase(const std::string& path, SQLiteSnapshotStore::Mode mode) {
  if (path.empty()) throw SnapshotStoreError::invalidPath();
  const DatabaseFiles files(path);
  if (mode == SQLiteSnapshotStore::Mode::readOnly) {
    auto database = std::make_unique<Database>(files, Database::Access::readOnly);
    SnapshotSchema::requirePlainTables(*database);
    return database;
  }
  SnapshotSchema::prepareFile(files.path());
  auto database = std::make_unique<Database>(files, Database::Access::readWriteCreate);
  SnapshotSchema::requirePlainTables(*database);
  SnapshotSchema::configureForWriting(*database);
  SnapshotSchema::ensure(*database);
  database->rememberFiles();
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
      mode_(mode),
      ownBundlePrefix_(lowercased(AppConfiguration::bundleIdentifierPrefix())),
      usageSummarySQL_(EnergyQueries::usageSummarySQL(ownBundlePrefix_)),
      connection_(openDatabase(path, mode)) {}

Database& SQLiteSnapshotStore::database() const {
  if (!connection_) {
    connection_ = openDatabase(path_, mode_);
    if (isEndWanted_) connection_->interruptWhen(isEndWanted_);
  }
  return *connection_;
}

void SQLiteSnapshotStore::interruptWhen(std::function<bool()> isEndWanted) {
  const MutexLock guard(lock_);
  isEndWanted_ = std::move(isEndWanted);
  database().interruptWhen(isEndWanted_);
}

/// A store that only reads goes on with the file that it has.
bool SQLiteSnapshotStore::isReplaced() const {
  return mode_ == Mode::readWriteCreate && database().wasReplaced();
}

void SQLiteSnapshotStore::reopenIfReplaced() {
  if (mode_ == Mode::readOnly) return;
  if (isReplaced()) {
    RuntimeLog::warn(logComponent, fmt::format("{} was removed or replaced: opening it anew", path_));
    connection_->abandon();
    connection_.reset();
  } else if (!SnapshotSchema::isComplete(database())) {
    RuntimeLog::warn(logComponent, fmt::format("{} lost its tables: making them anew", path_));
    SnapshotSchema::ensure(database());
  }
}

/// Carries out a change that may be carried out again in the file that has taken the place of the one that it
/// was made in.
template <typename Change>
auto SQLiteSnapshotStore::change(Change change) {
  constexpr int mostAttempts = 5;
  for (int attempt = 1;; ++attempt) {
    reopenIfReplaced();
    try {
      const auto result = change(database());
      if (!isReplaced()) return result;
    } catch (const SnapshotStoreError&) {
      if (!isReplaced()) throw;
    }
    if (attempt == mostAttempts)
      throw SnapshotStoreError::withMessage("The database is replaced again and again");
  }
}

SnapshotInsertOutcome SQLiteSnapshotStore::insert(const DrainSnapshot& snapshot) {
  using Kind = SnapshotInsertion::Decision::Kind;
  const MutexLock guard(lock_);
  validateForInsertion(snapshot);
  return change([&](Database& database) {
    const auto decision = SnapshotInsertion::decide(database, snapshot);
    if (decision.kind == Kind::drop) return SnapshotInsertOutcome::droppedNearDuplicate;

    WriteTransaction transaction(database);
    if (decision.kind == Kind::replace) SnapshotInsertion::deleteSnapshot(database, decision.existingID);
    SnapshotInsertion::writeRows(database, snapshot, ownBundlePrefix_);
    transaction.commit();
    // SQLite may just have created the files beside the database.
    if (database.changes() > 0) ensureSharedSnapshotSidecarPermissions(path_);
    return decision.kind == Kind::replace ? SnapshotInsertOutcome::replacedNearDuplicate
                                          : SnapshotInsertOutcome::inserted;
  });
}

std::int64_t SQLiteSnapshotStore::purgeSnapshots(PointInTime olderThan) {
  const MutexLock guard(lock_);
  return change([&](Database& database) {
    database.prepared(deleteOlder).run(olderThan.secondsSince1970());
    const std::int64_t deleted = database.changes();
    if (deleted > 0) {
      tryExecute(database, "PRAGMA wal_checkpoint(TRUNCATE);");
      tryExecute(database, "VACUUM;");
    }
    return deleted;
  });
}

std::vector<DrainSnapshot> SQLiteSnapshotStore::fetchLatest(std::int64_t limit) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database());
  return SnapshotQueries::latest(database(), limit);
}

std::optional<DrainSnapshot> SQLiteSnapshotStore::fetchSnapshot(std::int64_t id) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database());
  return SnapshotQueries::withID(database(), id);
}

std::vector<std::int64_t> SQLiteSnapshotStore::fetchSnapshotIDs() const {
  const MutexLock guard(lock_);
  return SnapshotQueries::ids(database());
}

SnapshotHistoryReadModel SQLiteSnapshotStore::fetchHistoryReadModel(std::int64_t limit) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database());
  return {SnapshotQueries::latest(database(), limit),
          EnergyQueries::usageSummary(database(), usageSummarySQL_, limit)};
}

EnergyUsageSummary SQLiteSnapshotStore::fetchEnergyUsageSummary(std::int64_t limit) const {
  const MutexLock guard(lock_);
  return EnergyQueries::usageSummary(database(), usageSummarySQL_, limit);
}

std::vector<DrainSnapshot> SQLiteSnapshotStore::fetchWindowSnapshots(
    double windowSeconds, std::int64_t maxRows, std::optional<PointInTime> anchorTimestamp) const {
  constexpr std::int64_t mostRows = 10000;
  const std::int64_t rows = std::clamp<std::int64_t>(maxRows, 1, mostRows);
  const MutexLock guard(lock_);
  const ReadTransaction reading(database());
  const auto window = windowEndingAt(database(), windowSeconds, anchorTimestamp);
  if (!window) return {};
  const std::int64_t count = SnapshotQueries::count(database(), window->cutoff, window->anchor);
  if (count < 1) return {};
  const std::int64_t stride = std::max<std::int64_t>(count / rows, 1);
  return SnapshotQueries::thinned(database(), window->cutoff, window->anchor, stride);
}

std::vector<PreparedSnapshot> SQLiteSnapshotStore::fetchPreparedSnapshots(
    double windowSeconds, std::optional<PointInTime> anchorTimestamp) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database());
  const auto window = windowEndingAt(database(), windowSeconds, anchorTimestamp);
  if (!window) return {};
  return DetailsQueries::preparedSnapshots(database(), window->cutoff, window->anchor);
}

DetailsPipelineOutput SQLiteSnapshotStore::fetchDetailsReadModel(
    double windowSeconds, std::int64_t maxAppSeries, std::optional<PointInTime> anchorTimestamp,
    const DrainSnapshot& fallbackSnapshot) const {
  const MutexLock guard(lock_);
  const ReadTransaction reading(database());
  const auto window = windowEndingAt(database(), windowSeconds, anchorTimestamp);
  if (!window) return emptyDetailsReadModel(secondsOfWindow(windowSeconds), fallbackSnapshot);
  return DetailsQueries::readModel(database(), window->cutoff, window->anchor, maxAppSeries,
                                   fallbackSnapshot);
}

DetailsWindowSummary SQLiteSnapshotStore::fetchDetailsWindowSummary(PointInTime cutoffTimestamp,
                                                                    PointInTime anchorTimestamp) const {
  const MutexLock guard(lock_);
  return EnergyQueries::windowSummary(database(), cutoffTimestamp, anchorTimestamp);
}

std::int64_t SQLiteSnapshotStore::insert(const EstimateTrackingEstimateInput& estimate) {
  const MutexLock guard(lock_);
  return change([&](Database& database) { return EstimateTracking::insert(database, estimate); });
}

bool SQLiteSnapshotStore::applyEvaluation(std::int64_t recordID,
                                          const EstimateTrackingEvaluationInput& evaluation) {
  const MutexLock guard(lock_);
  return change(
      [&](Database& database) { return EstimateTracking::applyEvaluation(database, recordID, evaluation); });
}

std::vector<EstimateTrackingRow> SQLiteSnapshotStore::fetchPendingEstimates(std::int64_t limit) const {
  const MutexLock guard(lock_);
  return EstimateTracking::fetchPending(database(), limit);
}

std::vector<EstimateTrackingRow> SQLiteSnapshotStore::fetchEstimateRows(std::int64_t limit) const {
  const MutexLock guard(lock_);
  return EstimateTracking::fetchNewest(database(), limit);
}

void SQLiteSnapshotStore::ensureSharedSnapshotSidecarPermissions(
    const std::string& forDatabaseAtPath) noexcept {
  quenzel::ensureSharedSnapshotSidecarPermissions(forDatabaseAtPath);
}

}  // namespace quenzel
