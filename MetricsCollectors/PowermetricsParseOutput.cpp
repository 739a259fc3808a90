#include "MetricsCollectors/PowermetricsParseOutput.hpp"

#include <functional>

#include "Base/Number.hpp"

namespace quenzel {

bool PowermetricsParseOutput::hasPackagePower() const {
  return cpuPackageW > 0 || gpuPackageW > 0 || anePackageW > 0 || combinedPackageW > 0;
}

double PowermetricsParseOutput::resolvedCPUAttributionDenominator() const {
  return totalTaskCPUmsPerSec > 0 ? totalTaskCPUmsPerSec : nonNegative(allTasksCPUmsPerSec.value_or(0));
}

bool PowermetricsParseOutput::gpuPackageAllocatedByCPUShare() const {
  return gpuPackageW > 0 && totalTaskGPUmsPerSec <= 0 && resolvedCPUAttributionDenominator() > 0;
}

namespace {

/// Mixes the hashes of several values (the constant is 2^64 divided by the golden ratio).
template <typename... Values>
std::size_t combinedHash(const Values&... values) {
  std::size_t seed = 0;
  ((seed ^= std::hash<Values>{}(values) + 0x9E3779B97F4A7C15U + (seed << 6) + (seed >> 2)), ...);
  return seed;
}

}  // namespace
}  // namespace quenzel

std::size_t std::hash<quenzel::PowermetricsProcessRecord>::operator()(
    const quenzel::PowermetricsProcessRecord& record) const noexcept {
  return quenzel::combinedHash(record.pid, record.name, record.cpuMsPerSec, record.gpuMsPerSec,
                               record.cpuPackageW, record.gpuPackageW, record.anePackageW, record.packageW);
}

std::size_t std::hash<quenzel::PowermetricsParseOutput>::operator()(
    const quenzel::PowermetricsParseOutput& output) const noexcept {
  std::size_t seed =
      quenzel::combinedHash(output.cpuPackageW, output.gpuPackageW, output.anePackageW,
                            output.combinedPackageW, output.totalSystemWatts, output.totalTaskCPUmsPerSec,
                            output.totalTaskGPUmsPerSec, output.allTasksCPUmsPerSec);
  for (const auto& record : output.processes) seed = quenzel::combinedHash(seed, record);
  return seed;
}
