#pragma once

#include <sys/types.h>

namespace quenzel::platform {

/// Gives the file of that name in an open folder a mode, if it is a regular file with one hard link: a
/// symbolic link or a second name might be put there by somebody to have another file's mode changed.
/// Failures are ignored.
///
/// Linux changes the very file that it looked at. macOS has no way to name a file but by its name without
/// opening it: there whoever may write the folder may put another file in place between the look and the
/// change, some microseconds apart, and so must be trusted not to.
///
/// The file is never opened for reading or writing: closing any descriptor of a file gives up all record
/// locks that this process has on it (fcntl(2)), and so would cut the database from under its own connection.
void setPlainFileMode(int folder, const char* name, mode_t mode) noexcept;

}  // namespace quenzel::platform
