#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

namespace quenzel::platform {

/// Adds the bytes at the end of a file, creating it with the mode when it is missing; 0, or the errno of what
/// failed. The last component of the path must not be a symbolic link, and a FIFO that nobody reads fails
/// instead of blocking: the files written this way stand in folders that every user may change, and the
/// writer may be root.
int appendToFile(const std::string& path, std::string_view bytes, mode_t mode);

}  // namespace quenzel::platform
