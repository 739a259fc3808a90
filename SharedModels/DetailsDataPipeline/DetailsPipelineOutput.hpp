#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Base/PointInTime.hpp"
#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

/// One point of a charted series; what it measures and its unit are the series' own.
struct ChartPoint {
  PointInTime timestamp = {};
  float value = 0;

  bool operator==(const ChartPoint&) const = default;
};

/// A value as a chart has it; what is too large for it becomes the largest there is.
float chartValue(double value);

/// Energy of a window by the trapezoid rule, from what each snapshot stored. On a window without snapshots,
/// or with one only, everything is 0.
struct DetailsWindowSummary {
  double totalWh = 0;       ///< the whole machine
  double batteryWh = 0;     ///< the part of it drawn on battery
  double trackerWh = 0;     ///< the monitor's own processes
  double trackedHours = 0;  ///< from the first snapshot to the last
  double sampleHours = 0;   ///< the same with each gap counted as a minute at most
  double processWh = 0;     ///< all processes
  double screenWh = 0;
  double usbWh = 0;
  double cpuWh = 0;
  double gpuWh = 0;
  double aneWh = 0;
  double ramWh = 0;
  double pciWh = 0;
  double unattributedWh = 0;

  bool operator==(const DetailsWindowSummary&) const = default;
};

/// What the processes of one group key drew over a window.
struct GroupedProcessData {
  std::string groupKey = {};
  std::string canonicalName = {};  ///< the representative's, else the group's newest one
  /// The representative's number while the group is in the window's latest snapshot, else a synthetic one
  /// (negative) made from the key.
  std::int64_t pid = 0;
  std::optional<ProcessDrain> representative = {};  ///< of the latest snapshot's rows, the one shown
  double energyWh = 0;
  double averageW = 0;  ///< energy over the window's sampled hours; 0 where there are none
  double latestW = 0;   ///< in the window's latest snapshot; 0 when not in it

  bool operator==(const GroupedProcessData&) const = default;
};

/// What one hidden workload drew over a window.
struct GroupedHiddenData {
  HiddenDrainKind kind = HiddenDrainKind::dockerContainer;
  std::string identifier = {};
  double energyWh = 0;
  double averageW = 0;  ///< as of GroupedProcessData
  double latestW = 0;

  bool operator==(const GroupedHiddenData&) const = default;
};

/// The curve of one application group.
struct AppSeries {
  std::string groupKey = {};
  std::string canonicalName = {};
  double energyWh = 0;
  /// Watts: the average over each of at most DetailsPipelineOutput::maxSeriesPoints equal spans of the
  /// window, at the time of the span's newest snapshot; spans without a sampled slice have no point.
  std::vector<ChartPoint> watts = {};

  bool operator==(const AppSeries&) const = default;
};

/// Everything that the details views show of a window of the history.
struct DetailsPipelineOutput {
  static constexpr std::int64_t maxSeriesPoints = 240;

  PointInTime windowStart = {};
  PointInTime anchor = {};         ///< the window's end
  std::int64_t snapshotCount = 0;  ///< in the window
  bool modelled = false;           ///< whether any of its figures come from modelled hardware
  std::vector<ChartPoint> totalPowerW = {};
  std::vector<ChartPoint> batteryLevelPercent = {};  ///< of the snapshots that know it
  std::optional<double> batteryDrainRatePctPerHour = {};
  DrainSnapshot latestSnapshot = {};  ///< the window's newest, whole; the fallback where there is none
  DetailsWindowSummary summary = {};
  ComponentDrain averageComponents = {};           ///< watts; confidence as in the latest snapshot
  std::vector<GroupedProcessData> processes = {};  ///< most energy first, then latest watts, then key
  std::vector<GroupedHiddenData> hidden = {};      ///< the same order, ties by kind and identifier
  std::vector<AppSeries> appSeries = {};           ///< of the first groups, in the same order

  bool operator==(const DetailsPipelineOutput&) const = default;
};

nlohmann::ordered_json encodeDetailsWindowSummary(const DetailsWindowSummary& summary);
nlohmann::ordered_json encodeDetailsPipelineOutput(const DetailsPipelineOutput& output);

}  // namespace quenzel
