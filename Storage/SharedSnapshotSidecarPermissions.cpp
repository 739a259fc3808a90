#include "Storage/SharedSnapshotSidecarPermissions.hpp"

#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>

#include "Platform/FileDescriptor.hpp"
#include "Platform/Settings.hpp"

namespace quenzel {
namespace {

using platform::FileDescriptor;

constexpr int openFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;  // a FIFO must not block

bool isShared(const std::string& path) {
  const std::string root = platform::sharedDirectory() + "/";
  return path.compare(0, root.size(), root) == 0;
}

bool isPlainFile(int file) {
  struct stat status {};
  return ::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1;
}

void openFileToEveryone(int folder, const std::string& name) {
  const FileDescriptor file(::openat(folder, name.c_str(), openFlags));
  if (file.valid() && isPlainFile(file.get())) ::fchmod(file.get(), 0666);
}

}  // namespace

void ensureSharedSnapshotSidecarPermissions(const std::string& databasePath) noexcept try {
  if (!isShared(databasePath)) return;
  const std::filesystem::path database(databasePath);
  const FileDescriptor folder(::open(database.parent_path().c_str(), openFlags | O_DIRECTORY));
  if (!folder.valid()) return;
  ::fchmod(folder.get(), 0777);
  for (const char* suffix : {"", "-wal", "-shm"}) {
    openFileToEveryone(folder.get(), database.filename().string() + suffix);
  }
} catch (...) {  // NOLINT(bugprone-empty-catch): no memory for a path, and no failure is reported here
}

}  // namespace quenzel
