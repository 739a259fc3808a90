#include "Storage/GuardedVFS.hpp"

#include <utility>

#include <fmt/format.h>
#include <sqlite3.h>

#include "Storage/SnapshotStoreError.hpp"

namespace quenzel {

/// The operations that differ; all others are the base's, which takes none of the fields that are ours.
struct GuardedVFS::Operations {
  static const GuardedVFS& guardOf(const sqlite3_vfs* vfs) {
    return *static_cast<const GuardedVFS*>(vfs->pAppData);
  }

  static int open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* openedFlags) {
    const GuardedVFS& guard = guardOf(vfs);
    file->pMethods = nullptr;  // nothing to be closed when it is refused
    const bool isTemporary = name == nullptr;
    if (!isTemporary && (!guard.files_.contains(name) || !DatabaseFiles::isPlainOrAbsent(name)))
      return SQLITE_CANTOPEN;
    return guard.base_->xOpen(guard.base_, name, file, flags, openedFlags);
  }

  static int remove(sqlite3_vfs* vfs, const char* name, int synchronizesFolder) {
    const GuardedVFS& guard = guardOf(vfs);
    if (!guard.files_.contains(name)) return SQLITE_IOERR_DELETE;
    return guard.base_->xDelete(guard.base_, name, synchronizesFolder);
  }

  static int access(sqlite3_vfs* vfs, const char* name, int flags, int* result) {
    const GuardedVFS& guard = guardOf(vfs);
    *result = 0;
    if (!guard.files_.contains(name)) return SQLITE_OK;
    return guard.base_->xAccess(guard.base_, name, flags, result);
  }
};

GuardedVFS::GuardedVFS(DatabaseFiles files)
    : files_(std::move(files)),
      name_(fmt::format("quenzel-{}", fmt::ptr(this))),
      base_(sqlite3_vfs_find(nullptr)) {
  if (base_ == nullptr) throw SnapshotStoreError::withMessage("Failed to open SQLite database.");
  vfs_ = std::make_unique<sqlite3_vfs>(*base_);
  vfs_->pNext = nullptr;
  vfs_->zName = name_.c_str();
  vfs_->pAppData = this;
  vfs_->xOpen = Operations::open;
  vfs_->xDelete = Operations::remove;
  vfs_->xAccess = Operations::access;
  if (sqlite3_vfs_register(vfs_.get(), 0) != SQLITE_OK)
    throw SnapshotStoreError::withMessage("Failed to open SQLite database.");
}

GuardedVFS::~GuardedVFS() { sqlite3_vfs_unregister(vfs_.get()); }

}  // namespace quenzel
