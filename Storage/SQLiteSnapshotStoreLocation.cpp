#include "Storage/SQLiteSnapshotStoreLocation.hpp"

#include <fmt/format.h>

#include "Platform/Settings.hpp"

namespace quenzel {

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

}  // namespace quenzel
