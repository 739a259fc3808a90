#include "Storage/SQLiteSnapshotStoreLocation.hpp"

#include <fmt/format.h>

#include "Platform/Settings.hpp"

namespace quenzel {

std::string SQLiteSnapshotStoreLocation::sharedSnapshotDatabasePath() {
  return fmt::format("{}/{}/{}", platform::sharedDirectory(), directoryName, databaseFileName);
}

}  // namespace quenzel
