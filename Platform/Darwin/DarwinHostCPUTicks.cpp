#include <mach/mach.h>

#include "Platform/HostCPUTicks.hpp"

namespace quenzel::platform {
namespace {

class DarwinHostCPUTicks final : public HostCPUTicks {
 public:
  DarwinHostCPUTicks() = default;
  DarwinHostCPUTicks(const DarwinHostCPUTicks&) = delete;
  DarwinHostCPUTicks& operator=(const DarwinHostCPUTicks&) = delete;
  ~DarwinHostCPUTicks() override { mach_port_deallocate(mach_task_self(), host_); }

  std::optional<CPUTicks> read() override {
    host_cpu_load_info_data_t load{};
    mach_msg_type_number_t count = HOST_CPU_LOAD_INFO_COUNT;
    if (host_statistics(host_, HOST_CPU_LOAD_INFO, reinterpret_cast<host_info_t>(&load), &count) !=
        KERN_SUCCESS)
      return std::nullopt;
    return CPUTicks{.user = load.cpu_ticks[CPU_STATE_USER],
                    .system = load.cpu_ticks[CPU_STATE_SYSTEM],
                    .idle = load.cpu_ticks[CPU_STATE_IDLE],
                    .nice = load.cpu_ticks[CPU_STATE_NICE]};
  }

 private:
  const mach_port_t host_ = mach_host_self();  // every call would add a reference to the port
};

}  // namespace

std::unique_ptr<HostCPUTicks> makeHostCPUTicks() { return std::make_unique<DarwinHostCPUTicks>(); }

}  // namespace quenzel::platform
