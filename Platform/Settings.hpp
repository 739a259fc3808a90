#pragma once

#include <optional>
#include <string>

namespace quenzel::platform {

// The places that a setting may move. Each is read from the environment at every call; an empty value counts
// as unset. Thread-safe.

/// The machine-wide shared directory: QZL_SHARED_DIRECTORY, else "/Users/Shared". No trailing slash.
std::string sharedDirectory();

/// The folder tried first for an absolute tool path: QZL_TOOL_ROOT, else the installed stand-ins of this
/// platform (Linux: libexec/quenzel/tools beside the executable's bin folder); none when there is no such
/// folder. The setting is trusted as it stands; installed tools must be beyond the reach of other users.
std::optional<std::string> toolRoot();

/// Folder of the daemon's socket where requests travel by socket: QZL_SOCKET_DIRECTORY, else "/run/quenzel".
std::string socketDirectory();

}  // namespace quenzel::platform
