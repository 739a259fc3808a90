#pragma once

#include <optional>
#include <string>

#include "QuenzelMonitor/Console.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"
#include "Storage/SnapshotStoreError.hpp"

namespace CLI {
class App;
}

namespace quenzel {

/// Adds "--database", which names the history that a command works on: by default the one that all commands
/// agree on, SQLiteSnapshotStoreLocation::defaultDatabaseURL.
void addDatabaseOption(CLI::App& app, std::optional<std::string>& database);

/// What a command wants of a history.
enum class HistoryAccess {
  read,    ///< nothing is created or altered
  change,  ///< the database must be there
  create,  ///< it is made where it is missing
};

/// The path that the option names, or the default.
/// @throws CommandError for HistoryAccess::change when there is no such file
std::string historyPath(const std::optional<std::string>& database, HistoryAccess access);

/// A failure of the store, with the database that it is about.
CommandError historyError(const std::string& path, const SnapshotStoreError& error);

/// Opens the history, lets the action use it and returns what that returns.
/// @throws CommandError, which names the database, for every failure of the store
template <typename Action>
auto withHistory(const std::optional<std::string>& database, HistoryAccess access, Action action) {
  const std::string path = historyPath(database, access);
  try {
    SQLiteSnapshotStore store(path, access == HistoryAccess::read
                                        ? SQLiteSnapshotStore::Mode::readOnly
                                        : SQLiteSnapshotStore::Mode::readWriteCreate);
    return action(store);
  } catch (const SnapshotStoreError& error) {
    throw historyError(path, error);
  }
}

}  // namespace quenzel
