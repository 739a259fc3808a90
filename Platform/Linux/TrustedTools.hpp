#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

namespace quenzel::platform {

/// The folder of the stand-in tools below a prefix: libexec/quenzel/tools where they are installed, tools in
/// a build tree. None where there is no such folder, or where somebody else than root and the user could put
/// another tool in place: every folder from the prefix down, and every tool, must belong to one of the two
/// and not be writable by others (for root, not by a group either), and there must be no link among them.
std::optional<std::string> trustedToolRoot(const std::string& prefix, uid_t user);

}  // namespace quenzel::platform
