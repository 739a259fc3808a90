#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

class JSONPath;

/// One process as the collectors saw it over one sampling interval.
struct ProcessSample {
  std::int64_t pid = 0;
  std::optional<std::int64_t> parentPID = {};
  std::optional<std::int64_t> responsiblePID = {};  ///< the application that launched this helper
  std::string name = {};
  std::optional<std::string> bundleID = {};
  std::optional<double> powermetricsPackageW = {};
  std::optional<double> powermetricsCPUW = {};
  std::optional<double> powermetricsGPUW = {};
  bool powermetricsGPUFallbackAllocated =
      false;  ///< the GPU watts were allocated by CPU share rather than read
  std::uint64_t residentMemoryBytes = 0;
  double cpuPercent = 0;  ///< of one core
  std::uint64_t cpuTimeDeltaNs = 0;
  double samplingIntervalMs = 0;
  double gpuTimeMs = 0;
  double diskReadBytes = 0;
  double diskWriteBytes = 0;
  double networkSentBytes = 0;
  double networkRecvBytes = 0;

  bool operator==(const ProcessSample&) const = default;
};

/// Only "pid" and "name" must be there.
/// @throws JSONCodingError
ProcessSample decodeProcessSample(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeProcessSample(const ProcessSample& sample);

}  // namespace quenzel
