#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Platform/EnergyModelChannels.hpp"
#include "Platform/Linux/ProcessTable.hpp"
#include "Platform/Linux/ProcessorTimes.hpp"

namespace quenzel::platform {

// What the powermetrics stand-in measures and how it prints it. Pure functions; the units of the output are
// those of the original: milliseconds of processor time a second, milliwatts.

/// Everything that one look at the machine gives.
struct PowermetricsScan {
  double seconds = 0;  ///< on a clock that only goes forward
  ProcessorTimes processors;
  std::vector<TaskStat> tasks;
  std::map<std::int32_t, TaskStorage> storage;  ///< by pid; only of the processes that let it be read
  std::optional<std::vector<EnergyModelChannel>> energy;
};

/// One line of the task section. Rates are per second of the interval.
struct PowermetricsRow {
  std::string name;
  std::int64_t id = 0;
  double cpuMs = 0;
  double userMs = 0;  ///< the part of cpuMs that was spent outside the kernel
  std::int64_t threads = 0;
  double faults = 0;
  double pageIns = 0;
  std::optional<double> bytesRead;
  std::optional<double> bytesWritten;
  std::int64_t residentPages = 0;
  std::optional<TaskStat> task;  ///< none for a sum over tasks

  bool operator==(const PowermetricsRow&) const = default;
};

/// Tasks that belong together and their sum; the busiest first.
struct PowermetricsGroup {
  PowermetricsRow sum;
  std::vector<PowermetricsRow> tasks;
};

struct PowermetricsTaskReport {
  std::vector<PowermetricsGroup> groups;
  PowermetricsRow
      dead;  ///< processor time of no task of the second scan: that of tasks which ended in between
  PowermetricsRow all;
};

/// What happened between two scans.
/// @param groupNames by pid; a process without one is its own group
PowermetricsTaskReport taskReport(const PowermetricsScan& before, const PowermetricsScan& after,
                                  const std::map<std::int32_t, std::string>& groupNames,
                                  double ticksPerSecond);

struct PowermetricsPower {
  // Of the counters that the machine has; systemMilliwatts is that of the whole machine.
  std::optional<double> cpuMilliwatts;
  std::optional<double> gpuMilliwatts;
  std::optional<double> systemMilliwatts;
  bool modelled = false;

  bool operator==(const PowermetricsPower&) const = default;
};

/// Power between two scans from the energy counters; none when a scan has none.
std::optional<PowermetricsPower> measuredPower(const PowermetricsScan& before, const PowermetricsScan& after);

/// Power that the model gives for the load between two scans.
PowermetricsPower modelledPower(const PowermetricsScan& before, const PowermetricsScan& after);

/// The task section with its header line. Every cell begins at its header's offset, whatever the names: a
/// longer text is cut, and names are printable ASCII ("?" for any other character), so that bytes, characters
/// and columns agree. Any user may name processes and groups: names are trimmed, and one that a reader could
/// take for a power line, a section title or a summary gets a "?" in front.
/// @param showAll all columns rather than those of processor time
std::string taskSection(const PowermetricsTaskReport& report, bool showAll);

/// The section of power, which ends the task section; what nothing measured has no line.
/// @param refusal why the counters may not be read, where that is why there is no power
std::string powerSection(const std::optional<PowermetricsPower>& power,
                         const std::optional<std::string>& refusal = std::nullopt);

}  // namespace quenzel::platform
