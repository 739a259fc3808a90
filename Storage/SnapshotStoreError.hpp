#pragma once

#include <stdexcept>
#include <string>

struct sqlite3;

namespace quenzel {

/// What went wrong in a snapshot store; what() is SQLite's own message wherever SQLite failed.
class SnapshotStoreError final : public std::runtime_error {
 public:
  enum class Kind {
    message,      ///< anything that what() tells
    invalidPath,  ///< an empty path
  };

  static SnapshotStoreError withMessage(const std::string& message);
  /// The last failure on a connection, or "Unknown SQLite error" when it tells none.
  static SnapshotStoreError ofConnection(sqlite3* connection);
  /// "Invalid database path"
  static SnapshotStoreError invalidPath();

  Kind kind() const noexcept { return kind_; }

 private:
  SnapshotStoreError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}

  Kind kind_;
};

}  // namespace quenzel
