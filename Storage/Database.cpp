#include "Storage/Database.hpp"

#include <chrono>
#include <utility>

#include <sqlite3.h>

#include "Base/MonotonicClock.hpp"
#include "Storage/SnapshotStoreError.hpp"

namespace quenzel {
namespace {

constexpr int busyTimeoutMilliseconds = 5000;

/// Longer than any text of a snapshot, short enough for many at once.
constexpr int mostValueBytes = 16 * 1024 * 1024;

void undo(Database& database) noexcept {
  try {
    database.execute("ROLLBACK;");
  } catch (const SnapshotStoreError&) {  // NOLINT(bugprone-empty-catch)
    // SQLite has rolled back by itself, as it does when the disk is full.
  }
}

}  // namespace

void Database::closeConnection(sqlite3* connection) noexcept { sqlite3_close_v2(connection); }

void Database::finalizeStatement(sqlite3_stmt* statement) noexcept { sqlite3_finalize(statement); }

Database::Database(DatabaseFiles files, Access access)
    : fileLayer_(std::make_unique<GuardedVFS>(std::move(files))),
      taker_(std::make_unique<const RowTaker*>(nullptr)) {
  const int flags = access == Access::readOnly
                        ? SQLITE_OPEN_READONLY
                        : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
  fileLayer_->files().requirePlainFiles();
  sqlite3* connection = nullptr;
  const int result = sqlite3_open_v2(fileLayer_->files().path().c_str(), &connection,
                                     flags | SQLITE_OPEN_NOFOLLOW, fileLayer_->name());
  connection_.reset(connection);  // to be closed even after a failure
  if (connection == nullptr) throw SnapshotStoreError::withMessage("Failed to open SQLite database.");
  if (result != SQLITE_OK) throw SnapshotStoreError::ofConnection(connection);
  sqlite3_busy_timeout(connection, busyTimeoutMilliseconds);
  restrictSchema();
  execute("PRAGMA busy_timeout = 5000;");
  execute("PRAGMA foreign_keys = ON;");
  addTakeRowFunction();
}

void Database::restrictSchema() {
  constexpr std::pair<int, int> settings[] = {{SQLITE_DBCONFIG_DEFENSIVE, 1},
                                              {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
                                              {SQLITE_DBCONFIG_ENABLE_TRIGGER, 0},
                                              {SQLITE_DBCONFIG_ENABLE_VIEW, 0}};
  for (const auto& [setting, value] : settings) {
    if (sqlite3_db_config(connection_.get(), setting, value, nullptr) != SQLITE_OK)
      throw SnapshotStoreError::ofConnection(connection_.get());
  }
  sqlite3_limit(connection_.get(), SQLITE_LIMIT_LENGTH, mostValueBytes);
}

void Database::interruptWhen(std::function<bool()> isEndWanted) {
  constexpr int stepsBetweenLooks = 100'000;  // some milliseconds
  const auto look = [](void* context) noexcept -> int {
    constexpr double patienceSeconds = 2;
    auto& interruption = *static_cast<Interruption*>(context);
    if (!interruption.isEndWanted()) return 0;
    const double now = monotonicSeconds();
    if (!interruption.wantedSince) interruption.wantedSince = now;
    return now - *interruption.wantedSince >= patienceSeconds ? 1 : 0;
  };
  interruption_ = std::make_unique<Interruption>(Interruption{std::move(isEndWanted), std::nullopt});
  sqlite3_progress_handler(connection_.get(), stepsBetweenLooks, look, interruption_.get());
}

Database::SidecarIdentities Database::sidecarIdentities() const {
  SidecarIdentities identities;
  auto identity = identities.begin();
  for (const char* suffix : {"-wal", "-shm"}) {
    if (const auto status = platform::fileStatus(fileLayer_->files().path() + suffix))
      *identity = status->identity;
    ++identity;
  }
  return identities;
}

void Database::rememberFiles() { sidecars_ = sidecarIdentities(); }

bool Database::wasReplaced() const {
  int hasMoved = 0;
  sqlite3_file_control(connection_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &hasMoved);
  return hasMoved != 0 || sidecarIdentities() != sidecars_;
}

void Database::abandon() noexcept {
  sqlite3_db_config(connection_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

/// As an aggregate, so that a query has no row of its own until all are taken.
void Database::addTakeRowFunction() {
  const auto takeRow = [](sqlite3_context* context, int /*count*/, sqlite3_value** values) noexcept {
    const RowTaker& taker = **static_cast<const RowTaker**>(sqlite3_user_data(context));
    const void* text = sqlite3_value_blob(values[1]);
    try {
      taker(sqlite3_value_int64(values[0]),
            {static_cast<const char*>(text), static_cast<std::size_t>(sqlite3_value_bytes(values[1]))},
            sqlite3_value_double(values[2]));
    } catch (...) {
      sqlite3_result_error_nomem(context);  // nothing else can have failed in there
    }
  };
  const auto end = [](sqlite3_context* context) noexcept { sqlite3_result_null(context); };
  if (sqlite3_create_function_v2(connection_.get(), "take_row", 3, SQLITE_UTF8 | SQLITE_DIRECTONLY,
                                 taker_.get(), nullptr, takeRow, end, nullptr) != SQLITE_OK)
    throw SnapshotStoreError::ofConnection(connection_.get());
}

void Database::execute(const char* sql) {
  if (sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    throw SnapshotStoreError::ofConnection(connection_.get());
}

void Database::useWriteAheadLog() {
  using Clock = std::chrono::steady_clock;
  constexpr int pauseMilliseconds = 2;
  const auto deadline = Clock::now() + std::chrono::milliseconds(busyTimeoutMilliseconds);
  // Of several connections that switch a new file at the same moment SQLite turns all but one away at once,
  // without the busy timeout, because each waits with a lock that the others want.
  while (sqlite3_exec(connection_.get(), "PRAGMA journal_mode = WAL;", nullptr, nullptr, nullptr) !=
         SQLITE_OK) {
    if (sqlite3_errcode(connection_.get()) != SQLITE_BUSY || Clock::now() >= deadline)
      throw SnapshotStoreError::ofConnection(connection_.get());
    sqlite3_sleep(pauseMilliseconds);
  }
}

Statement Database::prepared(std::string_view sql) {
  const auto known = statements_.find(sql);
  if (known != statements_.end()) return Statement(known->second.get());
  sqlite3_stmt* handle = nullptr;
  if (sqlite3_prepare_v3(connection_.get(), sql.data(), static_cast<int>(sql.size()),
                         SQLITE_PREPARE_PERSISTENT, &handle, nullptr) != SQLITE_OK)
    throw SnapshotStoreError::ofConnection(connection_.get());
  statements_.emplace(sql, StatementHandle(handle));
  return Statement(handle);
}

std::int64_t Database::lastInsertRowID() const { return sqlite3_last_insert_rowid(connection_.get()); }

std::int64_t Database::changes() const { return sqlite3_changes64(connection_.get()); }

WriteTransaction::WriteTransaction(Database& database) : database_(database) {
  database_.execute("BEGIN IMMEDIATE TRANSACTION;");
}

WriteTransaction::~WriteTransaction() {
  if (open_) undo(database_);
}

void WriteTransaction::commit() {
  database_.execute("COMMIT;");
  open_ = false;
}

ReadTransaction::ReadTransaction(Database& database) : database_(database) {
  database_.execute("BEGIN DEFERRED TRANSACTION;");
}

ReadTransaction::~ReadTransaction() { undo(database_); }

}  // namespace quenzel
