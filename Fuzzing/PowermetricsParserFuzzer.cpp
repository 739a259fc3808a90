// The parser on any bytes: it must come back, and its figures must hold together.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Base/Text.hpp"
#include "MetricsCollectors/PowermetricsParser.hpp"

using namespace quenzel;

namespace {

void check(const PowermetricsParseOutput& output) {
  for (const PowermetricsProcessRecord& record : output.processes) {
    if (record.pid < 1 || record.name.empty() || !(record.cpuMsPerSec >= 0) || !(record.gpuMsPerSec >= 0))
      std::abort();
  }
  if (!(output.resolvedCPUAttributionDenominator() >= 0)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string header = "*** Running tasks ***\nName  ID  CPU ms/s  GPU ms/s\n";
  check(PowermetricsParser().parse(bytes));  // as a runner never hands it on: unrepaired
  check(PowermetricsParser().parse(repairedUTF8(header + bytes)));  // inside the task section
  return 0;
}
