#pragma once

#include <optional>
#include <string>

namespace quenzel::platform {

/// Folder of the stand-ins for the system's power tools that are installed with this executable; none on a
/// platform that has the tools themselves, and none where another user could change them.
std::optional<std::string> installedToolRoot();

}  // namespace quenzel::platform
