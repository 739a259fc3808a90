#include "Storage/SharedSnapshotSidecarPermissions.hpp"

#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>

#include "Base/ScopedResource.hpp"
#include "Platform/FileMode.hpp"
#include "Platform/Settings.hpp"

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
  const FileDescriptor folder(
      ::open(database.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder) return;
  ::fchmod(folder.get(), 0777);
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const std::string name = database.filename().string() + suffix;
    platform::setPlainFileMode(folder.get(), name.c_str(), 0666);
  }
} catch (...) {  // NOLINT(bugprone-empty-catch): no memory for a path, and no failure is reported here
}

}  // namespace quenzel
