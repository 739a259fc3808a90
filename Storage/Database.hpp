#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Base/ScopedResource.hpp"
#include "Base/TextMap.hpp"
#include "Platform/FileStatus.hpp"
#include "Storage/GuardedVFS.hpp"
#include "Storage/Statement.hpp"

struct sqlite3;

namespace quenzel {

/// One connection to a SQLite 3 database, and its prepared statements. Not thread-safe: used under its
/// owner's lock. Every operation that can fail throws SnapshotStoreError.
class Database {
 public:
  enum class Access { readOnly, readWriteCreate };

  /// The connection waits 5 s for another one's lock, and keeps foreign keys.
  ///
  /// Others may be able to write the file and the folder. So the files must be plain (see DatabaseFiles), and
  /// of a foreign schema nothing is carried out: triggers don't fire, views are refused, functions in it are
  /// SQLite's harmless ones, and no value is longer than 16 MiB.
  /// @param files of a database; never one of the names that SQLite has for other things (":memory:")
  Database(DatabaseFiles files, Access access);
  Database(const std::string& path, Access access) : Database(DatabaseFiles(path), access) {}

  /// Ends a statement that still runs two seconds after the function first returned true, with the error
  /// "interrupted": whoever wants an end waits no longer, and what is sound has been done by then.
  void interruptWhen(std::function<bool()> isEndWanted);

  /// Takes down the identity of the files that the connection has open by now.
  void rememberFiles();
  /// Whether the database or a file beside it is no longer the one that the connection has open: what is
  /// stored through it then reaches nobody.
  bool wasReplaced() const;
  /// Has the closing leave the files of those names alone, which are another database's by now.
  void abandon() noexcept;

  /// Runs statements that take no values and whose rows nobody wants.
  void execute(const char* sql);

  /// Switches to write-ahead logging, where it is not on already; it lasts in the file.
  void useWriteAheadLog();

  /// A statement that is prepared at its first use and kept as long as the connection. Only one use of a text
  /// at a time.
  Statement prepared(std::string_view sql);

  /// Takes the values of one row.
  using RowTaker = std::function<void(std::int64_t integer, std::string_view text, double real)>;

  /// Hands the rows of a query to a taker from within SQLite, at little more than half the price of stepping
  /// out with each. The query is "SELECT take_row(integer, text, real) FROM ...". A taker that throws ends
  /// it.
  template <typename... Values>
  void takeRows(std::string_view sql, const RowTaker& taker, const Values&... values) {
    *taker_ = &taker;
    Statement select = prepared(sql);
    select.bind(values...);
    select.next();
  }

  std::int64_t lastInsertRowID() const;
  /// Rows that the latest INSERT, UPDATE or DELETE changed itself; not those that went by cascade.
  std::int64_t changes() const;

 private:
  static void closeConnection(sqlite3* connection) noexcept;
  static void finalizeStatement(sqlite3_stmt* statement) noexcept;
  using ConnectionHandle = ScopedResource<sqlite3*, &Database::closeConnection>;
  using StatementHandle = ScopedResource<sqlite3_stmt*, &Database::finalizeStatement>;

  /// The files beside the database, as the system tells them apart.
  using SidecarIdentities = std::array<std::optional<platform::FileStatus::Identity>, 2>;

  struct Interruption {
    std::function<bool()> isEndWanted;
    std::optional<double> wantedSince;  ///< on the monotonic clock
  };

  void restrictSchema();
  void addTakeRowFunction();
  SidecarIdentities sidecarIdentities() const;

  std::unique_ptr<GuardedVFS> fileLayer_;       ///< outlives the connection
  std::unique_ptr<Interruption> interruption_;  ///< at an address that SQLite keeps
  SidecarIdentities sidecars_ = {};
  std::unique_ptr<const RowTaker*> taker_;  ///< whoever takes rows now; at an address that SQLite keeps
  ConnectionHandle connection_;
  TextMap<StatementHandle> statements_;  ///< by their text
};

/// All or nothing: what happens between its making and commit() is undone unless commit() is reached.
class WriteTransaction {
 public:
  /// Takes the database's write lock at once, so that no other writer can come in between.
  explicit WriteTransaction(Database& database);
  WriteTransaction(const WriteTransaction&) = delete;
  WriteTransaction& operator=(const WriteTransaction&) = delete;
  ~WriteTransaction();
  void commit();

 private:
  Database& database_;
  bool open_ = true;
};

/// One picture of the database for several reads, whatever others write meanwhile.
class ReadTransaction {
 public:
  explicit ReadTransaction(Database& database);
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;
  ~ReadTransaction();

 private:
  Database& database_;
};

}  // namespace quenzel
