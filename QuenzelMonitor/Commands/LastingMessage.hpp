#pragma once

#include <string>

namespace quenzel {

/// Decides when a message that holds cycle after cycle is said: when it is new, and every tenth minute while
/// it lasts. Not thread-safe.
class LastingMessage {
 public:
  static constexpr double repeatSeconds = 600;

  /// @param text what holds now; empty: nothing does, and what comes next is new
  /// @param seconds on a clock that only goes forward
  bool isDue(const std::string& text, double seconds) {
    if (text == said_ && seconds - saidAt_ < repeatSeconds) return false;
    said_ = text;
    saidAt_ = seconds;
    return !text.empty();
  }

 private:
  std::string said_;
  double saidAt_ = 0;
};

}  // namespace quenzel
