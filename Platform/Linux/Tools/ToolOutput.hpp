#pragma once

#include <climits>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include <getopt.h>
#include <unistd.h>

#include "Base/WriteAll.hpp"

namespace quenzel::platform {

inline constexpr int usageExitStatus = 64;  ///< EX_USAGE of sysexits.h

/// Writes the text to standard output; the exit status to end with. The tool has SIGPIPE ignored, so that a
/// reader who went away shows here as a failure.
inline int printed(std::string_view text) {
  return writeAll(STDOUT_FILENO, text) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/// The option that getopt_long(3) has just refused: it leaves the letter of a short one, which may stand
/// amid others, and nothing of a long one.
inline std::string refusedOption(char** argv) {
  const bool isLetter = optopt != 0 && optopt <= CHAR_MAX;
  return isLetter ? std::string{'-', static_cast<char>(optopt)} : argv[optind - 1];
}

/// Says on standard error why the tool ends, and with which status.
inline int failed(std::string_view message, int status = EXIT_FAILURE) {
  writeAll(STDERR_FILENO, message);
  writeAll(STDERR_FILENO, "\n");
  return status;
}

/// All of a tool's main(): runs it, and says what it could not cope with in one line.
template <typename Run>
int toolMain(std::string_view name, Run run) {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return run();
  } catch (const std::exception& error) {
    writeAll(STDERR_FILENO, name);
    writeAll(STDERR_FILENO, ": ");
    return failed(error.what());
  }
}

}  // namespace quenzel::platform
