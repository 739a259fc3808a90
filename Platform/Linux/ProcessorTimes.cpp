#include "Platform/Linux/ProcessorTimes.hpp"

#include "Base/Number.hpp"
#include "Base/Text.hpp"
#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/Linux/LinuxSettings.hpp"

namespace quenzel::platform {

std::optional<ProcessorTimes> parseProcessorTimes(std::string_view stat) {
  ProcessorTimes times;
  std::uint64_t* const fields[] = {&times.user,   &times.nice, &times.system,  &times.idle,
                                   &times.ioWait, &times.irq,  &times.softIRQ, &times.steal};
  while (!stat.empty()) {
    std::string_view line = nextPiece(stat, '\n');
    if (nextPiece(line, ' ') != "cpu") continue;
    int count = 0;
    for (std::uint64_t* field : fields) {
      line = trimmedASCII(line);
      const auto ticks = parseInteger<std::uint64_t>(nextPiece(line, ' '));
      if (!ticks) break;
      *field = *ticks;
      ++count;
    }
    return count >= 4 ? std::optional(times) : std::nullopt;
  }
  return std::nullopt;
}

std::optional<ProcessorTimes> processorTimes() {
  const std::optional<std::string> stat = fileText(procfsRoot() + "/stat");
  return stat ? parseProcessorTimes(*stat) : std::nullopt;
}

}  // namespace quenzel::platform
