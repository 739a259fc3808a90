#include "Storage/SQLiteSnapshotStoreLocation.hpp"

#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "Platform/FileStatus.hpp"
#include "Platform/Settings.hpp"

namespace quenzel {
namespace {

/// Whether the user may make the file and the folders of it that are missing, or it is there.
bool canBeThere(const std::filesystem::path& file) {
  std::error_code failure;
  if (std::filesystem::exists(std::filesystem::symlink_status(file, failure))) return true;
  std::filesystem::path folder = file.parent_path();
  while (!std::filesystem::exists(folder, failure) && folder.has_relative_path())
    folder = folder.parent_path();
  return std::filesystem::is_directory(folder, failure) && platform::mayWriteFolder(folder);
}

}  // namespace

std::string SQLiteSnapshotStoreLocation::sharedSnapshotDatabaseURL() {
  return fmt::format("{}/{}/{}", platform::sharedDirectory(), directoryName, databaseFileName);
}

SQLiteSnapshotStoreLocationError SQLiteSnapshotStoreLocationError::missingApplicationSupportDirectory() {
  return {Kind::missingApplicationSupportDirectory, "Unable to locate the Application Support directory."};
}

std::string SQLiteSnapshotStoreLocation::localAppDatabaseURL(
    const std::optional<std::string>& applicationSupportDirectory) {
  if (!applicationSupportDirectory)
    throw SQLiteSnapshotStoreLocationError::missingApplicationSupportDirectory();
  return fmt::format("{}/{}/{}", *applicationSupportDirectory, directoryName, databaseFileName);
}

std::string SQLiteSnapshotStoreLocation::defaultDatabaseURL() {
  const std::string shared = sharedSnapshotDatabaseURL();
  const auto own = platform::applicationSupportDirectory();
  return canBeThere(shared) || !own ? shared : localAppDatabaseURL(own);
}

}  // namespace quenzel
