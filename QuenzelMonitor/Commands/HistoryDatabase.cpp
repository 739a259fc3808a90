#include "QuenzelMonitor/Commands/HistoryDatabase.hpp"

#include <filesystem>
#include <system_error>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Storage/SQLiteSnapshotStoreLocation.hpp"

namespace quenzel {

void addDatabaseOption(CLI::App& app, std::optional<std::string>& database) {
  app.add_option("--database", database,
                 "file of the history; when left out the shared one, or your own where that can't be made")
      ->type_name("PATH")
      ->default_str(SQLiteSnapshotStoreLocation::defaultDatabaseURL());
}

std::string historyPath(const std::optional<std::string>& database, HistoryAccess access) {
  std::string path = database.value_or(SQLiteSnapshotStoreLocation::defaultDatabaseURL());
  std::error_code failure;
  if (access == HistoryAccess::change && !path.empty() && !std::filesystem::exists(path, failure))
    throw CommandError(fmt::format("{}: no such database", path));
  return path;
}

CommandError historyError(const std::string& path, const SnapshotStoreError& error) {
  if (error.kind() == SnapshotStoreError::Kind::invalidPath) return CommandError(error.what());
  return CommandError(fmt::format("{}: {}", path, error.what()));
}

}  // namespace quenzel
