#pragma once

#include <string>
#include <utility>
#include <vector>

#include "SharedModels/Snapshot/AttributionInput.hpp"
#include "SharedModels/Snapshot/DrainSnapshot.hpp"

// Small records for tests to vary.

namespace quenzel {

inline ProcessSample makeProcessSample(std::int64_t pid, std::string name, double cpuPercent = 0) {
  return {.pid = pid, .name = std::move(name), .cpuPercent = cpuPercent};
}

inline ProcessDrain makeProcessDrain(std::int64_t pid, std::string name, double drainW,
                                     std::vector<std::string> sourceFlags = {"powermetrics_cpu"}) {
  return {.pid = pid, .name = std::move(name), .drainW = drainW, .sourceFlags = std::move(sourceFlags)};
}

/// One with the names that a stored row must have.
inline ProcessDrain makeNamedDrain(std::int64_t pid, const std::string& name, double drainW,
                                   std::vector<std::string> sourceFlags = {}) {
  ProcessDrain process = makeProcessDrain(pid, name, drainW, std::move(sourceFlags));
  process.displayName = process.canonicalName = process.processGroupKey = name;
  return process;
}

inline DrainSnapshot makeSnapshot(double secondsSince1970, double totalDischargeW,
                                  std::vector<ProcessDrain> processes = {}) {
  return {.timestamp = PointInTime::fromSecondsSince1970(secondsSince1970),
          .totalDischargeW = totalDischargeW,
          .processes = std::move(processes)};
}

}  // namespace quenzel
