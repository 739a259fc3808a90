#pragma once

#include <string>

namespace quenzel {

class Database;

/// The database of the snapshot history: its file, its journal and its tables. Times are seconds since
/// 1970-01-01T00:00:00Z, booleans 0 or 1. Each function throws SnapshotStoreError.
namespace SnapshotSchema {
inline constexpr int version = 5;

/// Creates the folders (mode 0777) and an empty file (0666) where they are missing, whatever the umask.
void prepareFile(const std::string& path);

/// Write-ahead logging: readers and a writer don't hinder each other, and after a crash everything committed
/// is there; only a power cut may cost the last commits (never the file).
void configureForWriting(Database& database);

/// Creates the tables that are missing. Snapshot tables of another version are dropped, with what they hold,
/// and made anew; the estimates are kept.
void ensure(Database& database);

/// Refuses a database in which one of the tables is a view, a virtual table or has a computed column: those
/// make endless rows and values of next to nothing.
void requirePlainTables(Database& database);

/// Whether all tables are there, of this version.
bool isComplete(Database& database);
}  // namespace SnapshotSchema

}  // namespace quenzel
