#pragma once

#include <optional>
#include <string>

namespace quenzel::platform {

/// The current user's home folder, an absolute path: HOME where that is one, else what the user database has
/// for the effective user (a service may run without HOME); none where it has none either. It need not exist.
std::optional<std::string> homeDirectory();

}  // namespace quenzel::platform
