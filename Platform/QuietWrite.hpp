#pragma once

#include <string_view>

namespace quenzel::platform {

inline constexpr int standardErrorDescriptor = 2;

/// Writes all of the bytes; 0, or the errno of what failed. A pipe that nobody reads is EPIPE and no SIGPIPE,
/// which would end a program that has not asked for it. The program's signal handling stays as it is: a
/// library has no say in it. Thread-safe.
int writeQuietly(int descriptor, std::string_view bytes) noexcept;

}  // namespace quenzel::platform
