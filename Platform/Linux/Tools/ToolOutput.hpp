#pragma once

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include <unistd.h>

namespace quenzel::platform {

inline constexpr int usageExitStatus = 64;  ///< EX_USAGE of sysexits.h

/// Writes the text to a descriptor. The tool has SIGPIPE ignored, so that a reader who went away shows here
/// as a failure.
inline bool writeText(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(descriptor, text.data(), text.size());
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

/// Writes the text to standard output; the exit status to end with.
inline int printed(std::string_view text) {
  return writeText(STDOUT_FILENO, text) ? EXIT_SUCCESS : EXIT_FAILURE;
}

/// Says on standard error why the tool ends, and with which status.
inline int failed(std::string_view message, int status = EXIT_FAILURE) {
  writeText(STDERR_FILENO, message);
  writeText(STDERR_FILENO, "\n");
  return status;
}

}  // namespace quenzel::platform
