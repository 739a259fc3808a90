#pragma once

#include <string>
#include <vector>

namespace quenzel::platform {

/// Makes sure of a folder in which the daemon (root) and every user keep files together: creates it and the
/// folders above it, and gives the folder itself, when it is this call that created it, mode 0777 whatever
/// the umask; so nobody who comes first locks the others out. The mode of a folder that exists is its owner's
/// choice and is left alone. Returns whether the folder is there; errno tells why it is not. Thread-safe.
bool createSharedDataDirectory(const std::string& path);

/// Creates an empty file that every user may change, whatever the umask; 0, or the errno of what failed,
/// EEXIST where anything stands there already. Thread-safe.
int createSharedFile(const std::string& path);

/// Lets every user change the folder and those of its files that are regular and have one hard link. A folder
/// that is a symbolic link, and failures, are ignored. Thread-safe.
void openToEverybody(const std::string& folder, const std::vector<std::string>& fileNames) noexcept;

}  // namespace quenzel::platform
