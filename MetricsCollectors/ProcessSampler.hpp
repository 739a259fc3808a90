#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Base/PointInTime.hpp"
#include "MetricsCollectors/RunningProcessMetadataCache.hpp"
#include "MetricsCollectors/ShellRunning.hpp"
#include "SharedModels/Runtime/ComponentProfiler.hpp"
#include "SharedModels/Snapshot/ProcessSample.hpp"

namespace quenzel {

struct ProcessSamplingSnapshot {
  std::vector<ProcessSample> sampledProcesses;  ///< the busiest, in rank order
  std::vector<ProcessSample> allProcesses;      ///< every process in the order of ps; empty unless asked for

  bool operator==(const ProcessSamplingSnapshot&) const = default;
};

/// A snapshot with what was lost on the way to it.
struct ProcessSamplingReport {
  ProcessSamplingSnapshot snapshot;
  std::size_t unreadableRows = 0;  ///< lines of ps that are not blank and are no row either
};

/// Lists the running processes through one run of ps(1) and keeps the busiest by CPU percentage, with their
/// executable's path as name where it is known.
///
/// Holds no state of its own. Calls block for the duration of ps. Ranking costs n log(limit);
/// metadata is looked up only for rows that are returned, once each.
class ProcessSampler {
 public:
  /// What the sampler asks of its surroundings.
  struct Surroundings {
    RunningProcessMetadataLookup metadataResolver;
    RunningProcessMetadataCache& metadataCache;
    std::function<bool(const std::string& path)> fileExists;
    std::function<PointInTime()> nowProvider;
    ComponentProfiler& componentProfiler;

    /// The shared resolver, cache and profiler, the file system and the clock of this system.
    static Surroundings ofThisSystem();
  };

  explicit ProcessSampler(const ShellRunning& shell,
                          Surroundings surroundings = Surroundings::ofThisSystem());
  /// With the file system and the clock of this system.
  ProcessSampler(const ShellRunning& shell, RunningProcessMetadataLookup metadataResolver,
                 RunningProcessMetadataCache& metadataCache, ComponentProfiler& componentProfiler);

  /// At most `limit` processes (at least one), busiest first, equal ones by pid.
  /// @throws ShellRunnerError when ps does not start, does not end in time, or ends with another status than
  /// 0
  std::vector<ProcessSample> sampleTopProcesses(std::int64_t limit) const;
  /// The same together with every process. A pid that ps lists twice is a fatal error here.
  ProcessSamplingSnapshot sampleProcessTree(std::int64_t limit) const;
  /// Either of them, with the number of rows that could not be read, which is logged too.
  ProcessSamplingReport sampleProcesses(std::int64_t limit, bool includeAllProcesses) const;

  /// What those make of the text that ps printed.
  ProcessSamplingSnapshot snapshotFrom(std::string_view psOutput, std::int64_t limit,
                                       bool includeAllProcesses) const;

  // The steps of it, open to tests. Texts are views into ps's output.

  struct PSRow {
    std::int64_t pid = 0;
    std::int64_t parentPID = 0;
    double cpuPercent = 0;
    double mem = 0;
    std::string_view commandLine;

    bool operator==(const PSRow&) const = default;
  };
  /// None for a line that does not hold all five columns.
  static std::optional<PSRow> parsePSLine(std::string_view line);

  struct ParsedRows {
    std::vector<PSRow> rows;                ///< in the order of the text
    std::vector<std::uint32_t> topEntries;  ///< indices into `rows`, in rank order
    std::size_t unreadableRows = 0;
  };
  static ParsedRows parse(std::string_view psOutput, std::size_t limit);

  /// The first word of a command line, quotes and backslashes inside them undone.
  static std::optional<std::string> executableToken(std::string_view commandLine);
  std::optional<std::string> resolvedCommandPath(std::string_view commandLine) const;
  std::string resolveProcessName(std::string_view commandLine,
                                 std::optional<RunningProcessMetadata> metadata) const;

 private:
  std::string psOutput() const;
  ProcessSample resolveProcessSample(const PSRow& row, PointInTime now, bool logsNames) const;
  ProcessSamplingReport report(std::string_view psOutput, std::int64_t limit, bool includeAllProcesses) const;
  ProcessSamplingSnapshot tree(const ParsedRows& parsed, PointInTime now, bool logsNames) const;

  const ShellRunning& shell_;
  Surroundings surroundings_;
};

/// Whether process names are being debugged: QZL_PROCESS_NAME_DEBUG is "1" or
/// /tmp/qzl-process-name-debug.flag exists.
bool isNameDebugEnabled();

}  // namespace quenzel
