#pragma once

#include <cstdint>

namespace quenzel::platform {

/// The PID of this process.
std::int32_t ownPID();

/// The user whose rights this process has; 0 is root.
std::uint32_t effectiveUserID();

}  // namespace quenzel::platform
