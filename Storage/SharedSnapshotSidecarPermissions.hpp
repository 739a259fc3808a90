#pragma once

#include <string>

namespace quenzel {

/// Opens the shared database to every local user, so that the application and the root daemon can both write
/// it: the folder that holds it gets mode 0777; the database, its "-wal" and its "-shm" get 0666 where they
/// exist. A path that is not below the shared directory is left alone. Failures are ignored.
///
/// Whoever may write the folder may put anything into it, and the daemon is root. So the folder and the files
/// are changed only when they are what they seem: no symbolic link is followed, and a file with a second hard
/// link (it might be anybody's) is passed over.
void ensureSharedSnapshotSidecarPermissions(const std::string& databasePath) noexcept;

}  // namespace quenzel
