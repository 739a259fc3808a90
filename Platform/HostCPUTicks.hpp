#pragma once

#include <cstdint>
#include <memory>
#include <optional>

namespace quenzel::platform {

/// Cumulative ticks of all processors together since boot, each modulo 2^32.
struct CPUTicks {
  std::uint32_t user = 0;
  std::uint32_t system = 0;
  std::uint32_t idle = 0;
  std::uint32_t nice = 0;

  bool operator==(const CPUTicks&) const = default;
};

class HostCPUTicks {
 public:
  virtual ~HostCPUTicks() = default;

  /// The counters now; none when the system does not answer.
  virtual std::optional<CPUTicks> read() = 0;
};

std::unique_ptr<HostCPUTicks> makeHostCPUTicks();

}  // namespace quenzel::platform
