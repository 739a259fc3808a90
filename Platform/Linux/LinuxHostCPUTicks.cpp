#include "Platform/HostCPUTicks.hpp"
#include "Platform/Linux/ProcessorTimes.hpp"

namespace quenzel::platform {
namespace {

class LinuxHostCPUTicks final : public HostCPUTicks {
 public:
  std::optional<CPUTicks> read() override {
    const std::optional<ProcessorTimes> times = processorTimes();
    if (!times) return std::nullopt;
    return CPUTicks{.user = modulo32(times->user),
                    .system = modulo32(times->system + times->irq + times->softIRQ + times->steal),
                    .idle = modulo32(times->idle + times->ioWait),
                    .nice = modulo32(times->nice)};
  }

 private:
  static std::uint32_t modulo32(std::uint64_t ticks) { return static_cast<std::uint32_t>(ticks); }
};

}  // namespace

std::unique_ptr<HostCPUTicks> makeHostCPUTicks() { return std::make_unique<LinuxHostCPUTicks>(); }

}  // namespace quenzel::platform
