#include "Storage/SnapshotStoreError.hpp"

#include <sqlite3.h>

namespace quenzel {

SnapshotStoreError SnapshotStoreError::withMessage(const std::string& message) {
  return {Kind::message, message};
}

SnapshotStoreError SnapshotStoreError::ofConnection(sqlite3* connection) {
  // Without an error SQLite's message is "not an error", which would explain nothing.
  const bool failed = connection != nullptr && sqlite3_errcode(connection) != SQLITE_OK;
  const char* message = failed ? sqlite3_errmsg(connection) : nullptr;
  return {Kind::message, message != nullptr && *message != '\0' ? message : "Unknown SQLite error"};
}

SnapshotStoreError SnapshotStoreError::invalidPath() { return {Kind::invalidPath, "Invalid database path"}; }

}  // namespace quenzel
