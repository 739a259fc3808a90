// The sampler's reading of ps on any text: ranked, within its limit, and every row a line of the text.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "MetricsCollectors/ProcessSampler.hpp"

using namespace quenzel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const ProcessSampler::ParsedRows parsed = ProcessSampler::parse(text, 3);
  if (parsed.topEntries.size() != std::min<std::size_t>(parsed.rows.size(), 3)) std::abort();
  for (std::size_t rank = 1; rank < parsed.topEntries.size(); ++rank) {
    const auto& before = parsed.rows[parsed.topEntries[rank - 1]];
    const auto& after = parsed.rows[parsed.topEntries[rank]];
    if (before.cpuPercent < after.cpuPercent) std::abort();
  }
  for (const auto& row : parsed.rows) {
    if (row.commandLine.empty()) std::abort();
    ProcessSampler::executableToken(row.commandLine);
  }
  return 0;
}
