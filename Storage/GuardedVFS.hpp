#pragma once

#include <memory>
#include <string>

#include "Storage/DatabaseFiles.hpp"

struct sqlite3_vfs;

namespace quenzel {

/// SQLite's own file layer (https://sqlite.org/vfs.html) with narrower rights, for one database.
///
/// A rollback journal may name a "super-journal", which SQLite deletes once it has rolled back. Such a name
/// is read from a file that others can write, and so could be any file's. Therefore no file but the
/// database's own is opened, seen or deleted (temporary files without a name apart), and each is a regular
/// file with one hard link. A journal that names a super-journal passes for one whose transaction was
/// committed: it is removed, and the database stays as it is. The store never makes one.
///
/// Registered with SQLite from construction to destruction, under a name of its own; outlives the connection.
/// Thread-safe, as SQLite demands: nothing in it changes.
class GuardedVFS {
 public:
  /// @throws SnapshotStoreError when there is no file layer to build on
  explicit GuardedVFS(DatabaseFiles files);
  ~GuardedVFS();
  GuardedVFS(const GuardedVFS&) = delete;
  GuardedVFS& operator=(const GuardedVFS&) = delete;

  /// The name to open the database with.
  const char* name() const { return name_.c_str(); }

  const DatabaseFiles& files() const { return files_; }

 private:
  struct Operations;

  DatabaseFiles files_;
  std::string name_;
  sqlite3_vfs* base_;
  std::unique_ptr<sqlite3_vfs> vfs_;
};

}  // namespace quenzel
