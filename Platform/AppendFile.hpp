#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

namespace quenzel::platform {

/// Adds the bytes at the end of a file, creating it with the mode when it is missing; 0, or the errno of what
/// failed. What stands there must be a plain file of one name: a link of either kind is refused, and a FIFO
/// that nobody reads fails instead of blocking. The files written this way stand in folders that every user
/// may change, and the writer may be root.
int appendToFile(const std::string& path, std::string_view bytes, mode_t mode);

}  // namespace quenzel::platform
