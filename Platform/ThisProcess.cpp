#include "Platform/ThisProcess.hpp"

#include <unistd.h>

namespace quenzel::platform {

std::int32_t ownPID() { return ::getpid(); }

std::uint32_t effectiveUserID() { return ::geteuid(); }

}  // namespace quenzel::platform
