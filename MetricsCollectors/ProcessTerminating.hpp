#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace quenzel {

/// How an attempt to end a process went. A success may carry a message too: that the process was gone
/// already, or that it took SIGKILL.
struct ProcessTerminationResult {
  bool succeeded = false;
  std::optional<std::string> message;

  static ProcessTerminationResult success(std::optional<std::string> message = std::nullopt) {
    return {true, std::move(message)};
  }
  static ProcessTerminationResult failure(std::string message) { return {false, std::move(message)}; }

  bool operator==(const ProcessTerminationResult&) const = default;
};

/// Ends one process. Implementations are safe to call from several threads at once.
class ProcessTerminating {
 public:
  virtual ~ProcessTerminating() = default;

  /// Blocks until the outcome is known. Never throws.
  virtual ProcessTerminationResult terminateProcess(std::int32_t pid) const = 0;
};

}  // namespace quenzel
