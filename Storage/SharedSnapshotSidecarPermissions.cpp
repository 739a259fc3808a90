#include "Storage/SharedSnapshotSidecarPermissions.hpp"

#include <filesystem>

#include "Platform/Settings.hpp"
#include "Platform/SharedFiles.hpp"

namespace quenzel {
namespace {

bool isShared(const std::string& path) {
  const std::string root = platform::sharedDirectory() + "/";
  return path.compare(0, root.size(), root) == 0;
}

}  // namespace

void ensureSharedSnapshotSidecarPermissions(const std::string& databasePath) noexcept try {
  if (!isShared(databasePath)) return;
  const std::filesystem::path database(databasePath);
  const std::string name = database.filename();
  platform::openToEverybody(database.parent_path(), {name, name + "-wal", name + "-shm"});
} catch (...) {  // NOLINT(bugprone-empty-catch): no memory for a path, and no failure is reported here
}

}  // namespace quenzel
