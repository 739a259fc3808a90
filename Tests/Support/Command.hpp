#pragma once

#include <cstdio>
#include <ostream>
#include <string>

#include <sys/wait.h>

namespace quenzel::testing {

struct CommandResult {
  int status = -1;     ///< its exit status; -1 for any other end
  std::string output;  ///< both streams

  bool operator==(const CommandResult&) const = default;
};

inline void PrintTo(const CommandResult& result, std::ostream* stream) {
  *stream << "status " << result.status << ": " << result.output;
}

/// Runs a command of the shell to its end.
inline CommandResult runCommand(const std::string& command) {
  CommandResult result;
  FILE* const pipe = ::popen((command + " 2>&1").c_str(), "re");
  if (pipe == nullptr) return result;
  for (int byte; (byte = std::fgetc(pipe)) != EOF;) result.output += static_cast<char>(byte);
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

}  // namespace quenzel::testing
