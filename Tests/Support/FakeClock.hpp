#pragma once

#include <functional>

#include "Base/PointInTime.hpp"

namespace quenzel::testing {

/// A wall clock that is advanced by hand.
class FakeClock {
 public:
  PointInTime now() const { return now_; }
  void advance(double seconds) { now_ = now_ + seconds; }
  std::function<PointInTime()> provider() const {
    return [this] { return now_; };
  }

 private:
  PointInTime now_{800'000'000};
};

}  // namespace quenzel::testing
