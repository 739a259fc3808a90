#include "Storage/SQLiteSnapshotStoreLocation.hpp"

#include <fmt/format.h>

#include "Platform/Settings.hpp"

namespace quenzel {

std::string SQLiteSnapshotStoreLocation::sharedSnapshotDatabaseURL() {
  return fmt::format("{}/{}/{}", platform::sharedDirectory(), directoryName, databaseFileName);
}

}  // namespace quenzel
