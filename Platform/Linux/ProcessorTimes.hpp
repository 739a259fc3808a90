#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace quenzel::platform {

/// What all processors together did since boot, in clock ticks (sysconf(_SC_CLK_TCK) a second): the first
/// line of /proc/stat, see proc(5). Time of virtual guests is part of user and nice already.
struct ProcessorTimes {
  std::uint64_t user = 0;
  std::uint64_t nice = 0;
  std::uint64_t system = 0;
  std::uint64_t idle = 0;
  std::uint64_t ioWait = 0;
  std::uint64_t irq = 0;
  std::uint64_t softIRQ = 0;
  std::uint64_t steal = 0;

  /// Time that is also counted to some task.
  std::uint64_t taskTicks() const { return user + nice + system; }
  std::uint64_t busyTicks() const { return taskTicks() + irq + softIRQ + steal; }
  std::uint64_t totalTicks() const { return busyTicks() + idle + ioWait; }

  bool operator==(const ProcessorTimes&) const = default;
};

/// The times in the text of /proc/stat. Fields that an old kernel leaves out at the end are 0; none without a
/// "cpu" line of at least the first four.
std::optional<ProcessorTimes> parseProcessorTimes(std::string_view stat);

/// The times now; none when /proc/stat can't be read.
std::optional<ProcessorTimes> processorTimes();

}  // namespace quenzel::platform
