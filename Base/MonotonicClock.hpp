#pragma once

#include <chrono>

namespace quenzel {

/// Seconds on a clock that nobody sets; only differences mean anything.
inline double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace quenzel
