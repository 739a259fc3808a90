#pragma once

#include <optional>
#include <string>

namespace quenzel::platform {

/// The folder in which applications keep the current user's data, without a trailing slash; absent for a user
/// without a home (Platform/HomeDirectory.hpp). macOS: "Library/Application Support" in the home folder.
/// Linux: XDG_DATA_HOME, else ".local/share" in the home folder (the XDG base directories of
/// freedesktop.org). It need not exist.
std::optional<std::string> applicationSupportDirectory();

}  // namespace quenzel::platform
