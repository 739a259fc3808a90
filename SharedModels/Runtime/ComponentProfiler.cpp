#include "SharedModels/Runtime/ComponentProfiler.hpp"

#include <fmt/format.h>

namespace quenzel {

ComponentProfiler& ComponentProfiler::shared() {
  static ComponentProfiler profiler;
  return profiler;
}

std::string ComponentProfiler::makeCorrelationID(std::string_view prefix) {
  return fmt::format("{}-{}", prefix, nextCorrelation_++);
}

}  // namespace quenzel
