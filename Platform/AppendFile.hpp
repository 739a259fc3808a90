#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

namespace quenzel::platform {

/// Appends the bytes to a file, creating it with the mode when it is missing; 0, or the errno of what failed.
/// The path must be a regular file with one hard link; symbolic and hard links, FIFOs and devices are
/// refused, since the files written this way are in folders that every user may change, and the writer may be
/// root.
int appendToFile(const std::string& path, std::string_view bytes, mode_t mode);

}  // namespace quenzel::platform
