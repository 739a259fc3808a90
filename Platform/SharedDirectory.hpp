#pragma once

#include <string>

namespace quenzel::platform {

/// Makes sure of a folder in which the daemon (root) and every user keep files together: creates it and the
/// folders above it, and gives the folder itself, when it is this call that created it, mode 0777 whatever
/// the umask; so nobody who comes first locks the others out. The mode of a folder that exists is its owner's
/// choice and is left alone. Returns whether the folder is there; errno tells why it is not. Thread-safe.
bool createSharedDataDirectory(const std::string& path);

}  // namespace quenzel::platform
