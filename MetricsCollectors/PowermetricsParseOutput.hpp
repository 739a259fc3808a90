#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quenzel {

/// One task of a powermetrics sample with the package power attributed to it.
struct PowermetricsProcessRecord {
  std::int64_t pid = 0;    ///< at least 1
  std::string name;        ///< as the tool prints it: often cut short
  double cpuMsPerSec = 0;  ///< at least 0
  double gpuMsPerSec = 0;  ///< at least 0
  double cpuPackageW = 0;
  double gpuPackageW = 0;
  double anePackageW = 0;
  double packageW = 0;  ///< the three together

  bool operator==(const PowermetricsProcessRecord&) const = default;
};

/// What one powermetrics sample says. Watts are 0 where the text has no such line; a total that is absent was
/// not reported.
struct PowermetricsParseOutput {
  double cpuPackageW = 0;
  double gpuPackageW = 0;
  double anePackageW = 0;
  double combinedPackageW = 0;                  ///< the sum of the three where the text gives none above 0
  std::optional<double> totalSystemWatts = {};  ///< the whole machine
  double totalTaskCPUmsPerSec = 0;
  double totalTaskGPUmsPerSec = 0;
  std::optional<double> allTasksCPUmsPerSec = {};  ///< the tool's own total over all tasks
  std::vector<PowermetricsProcessRecord> processes = {};

  /// Whether any package figure is above 0.
  bool hasPackagePower() const;
  /// The CPU time that package power is shared out by; 0 when there is none.
  double resolvedCPUAttributionDenominator() const;
  /// Whether GPU power was spread by CPU share because no task reported GPU time.
  bool gpuPackageAllocatedByCPUShare() const;

  bool operator==(const PowermetricsParseOutput&) const = default;
};

}  // namespace quenzel

template <>
struct std::hash<quenzel::PowermetricsProcessRecord> {
  std::size_t operator()(const quenzel::PowermetricsProcessRecord& record) const noexcept;
};

template <>
struct std::hash<quenzel::PowermetricsParseOutput> {
  std::size_t operator()(const quenzel::PowermetricsParseOutput& output) const noexcept;
};
