#pragma once

#include <string_view>

#include <sys/types.h>

namespace quenzel::platform {

/// write(2), repeated while a signal interrupts it; a pipe that nobody reads is EPIPE and no SIGPIPE, which
/// would end a program that has not asked for it. The program's signal handling stays as it is: a library has
/// no say in it. Thread-safe.
ssize_t writeQuietly(int descriptor, std::string_view bytes) noexcept;

}  // namespace quenzel::platform
