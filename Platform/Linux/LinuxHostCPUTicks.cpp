#include <algorithm>

#include "Base/Mutex.hpp"
#include "Platform/HostCPUTicks.hpp"
#include "Platform/Linux/ProcessorTimes.hpp"

namespace quenzel::platform {
namespace {

class LinuxHostCPUTicks final : public HostCPUTicks {
 public:
  std::optional<CPUTicks> read() override {
    const std::optional<ProcessorTimes> times = processorTimes();
    if (!times) return std::nullopt;
    const MutexLock guard(lock_);
    return CPUTicks{
        .user = risen(highest_.user, times->user),
        .system = risen(highest_.system, times->system + times->irq + times->softIRQ + times->steal),
        .idle = risen(highest_.idle, times->idle + times->ioWait),
        .nice = risen(highest_.nice, times->nice)};
  }

 private:
  struct Counters {
    std::uint64_t user = 0;
    std::uint64_t system = 0;
    std::uint64_t idle = 0;
    std::uint64_t nice = 0;
  };

  /// The counter modulo 2^32. The kernel's may step back (proc(5) says so of the time that waits for input
  /// and output); then it stands still here, since whoever subtracts would take the step for a wrap.
  static std::uint32_t risen(std::uint64_t& highest, std::uint64_t ticks) {
    highest = std::max(highest, ticks);
    return static_cast<std::uint32_t>(highest);
  }

  Mutex lock_;
  Counters highest_ GUARDED_BY(lock_);
};

}  // namespace

std::unique_ptr<HostCPUTicks> makeHostCPUTicks() { return std::make_unique<LinuxHostCPUTicks>(); }

}  // namespace quenzel::platform
