#pragma once

#include <ctime>
#include <string>

#include "Tests/Support/ScopedEnvironment.hpp"

namespace quenzel::testing {

/// Local time is that of a zone, in the form of TZ (tzset(3)), until the end of the scope.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const std::string& zone) {
    environment_.set("TZ", zone);
    ::tzset();
  }

 private:
  struct Reset {
    ~Reset() { ::tzset(); }
  };

  Reset reset_;  // destroyed last, when TZ is back
  ScopedEnvironment environment_{{}};
};

}  // namespace quenzel::testing
