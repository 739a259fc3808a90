#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Base/TextMap.hpp"
#include "SharedModels/DetailsDataPipeline/DetailsPipelineOutput.hpp"
#include "SharedModels/DetailsDataPipeline/WindowTimeline.hpp"

namespace quenzel {

// The rules by which a details read model is put together from what the store reads. Pure functions but for
// the integrator, which takes a window's rows as they are read and keeps none of them.

/// What the rows of one group came to over a window.
struct GroupedWatts {
  double energyWh = 0;
  std::size_t newestSnapshot = 0;   ///< position in the window of the newest snapshot with a row of it
  std::vector<double> spanWh = {};  ///< the energy in each of the timeline's spans
  bool hasNegativeRow = false;
};

/// What one group drew in one snapshot: the sum of its rows as they stand, negative ones included.
struct SnapshotWatts {
  std::size_t snapshot = 0;  ///< its position in the window
  double watts = 0;
};

/// Integrates the summed watts of one group by the trapezoid rule, slice by slice: the average of a slice is
/// at least 0, and that is the only floor.
/// @param watts at most one value a snapshot, in any order
GroupedWatts integrateGroupedWatts(const WindowTimeline& timeline, std::vector<SnapshotWatts> watts);

/// Integrates the summed watts of all groups as their rows are read. Memory: two kilobytes a group, however
/// many rows there are. That works for groups without a row below 0, which is all that the recorder writes;
/// the others are told, and replaced by what integrateGroupedWatts finds from their sums.
class GroupedWattsIntegrator {
 public:
  explicit GroupedWattsIntegrator(const WindowTimeline& timeline) : timeline_(timeline) {}

  /// Adds a row of a group; rows come in any order. Fastest where the rows of a snapshot come one after
  /// another, in much the same order as those of the one before.
  void add(std::size_t snapshot, std::string_view groupKey, double drainW);

  /// Whether any group has a row below 0, and whether this one has.
  bool hasNegativeRows() const { return hasNegativeRows_; }
  bool hasNegativeRows(std::string_view groupKey) const;
  void replace(std::string_view groupKey, GroupedWatts watts);

  const TextMap<GroupedWatts>& groups() const { return groups_; }

 private:
  using Entry = TextMap<GroupedWatts>::value_type;

  Entry& entryOf(std::size_t snapshot, std::string_view groupKey);

  const WindowTimeline& timeline_;
  TextMap<GroupedWatts> groups_;
  std::vector<Entry*> order_;  ///< of the groups of the latest snapshot's rows, to guess the next row's
  std::size_t position_ = 0;   ///< in that order
  std::size_t snapshot_ = 0;
  bool hasNegativeRows_ = false;
};

/// The row that stands for a group: of the highest presentation score; then of the most power, then of the
/// lowest number. None when the snapshot has no row of that key.
std::optional<ProcessDrain> groupedRepresentative(const DrainSnapshot& latest, std::string_view groupKey);

/// @param canonicalNames the newest canonical name of each group key
std::vector<GroupedProcessData> buildGroupedProcessData(const TextMap<GroupedWatts>& groups,
                                                        const TextMap<std::string>& canonicalNames,
                                                        const DrainSnapshot& latest, double sampleHours);

/// The key under which a hidden workload is integrated: its kind's text, a "-" and its identifier.
std::vector<GroupedHiddenData> buildHiddenData(
    const TextMap<GroupedWatts>& groups, std::span<const std::pair<HiddenDrainKind, std::string>> workloads,
    const DrainSnapshot& latest, double sampleHours);

/// The curves of the first groups, `maxAppSeries` of them; none for a number below 1.
std::vector<AppSeries> buildAppSeries(std::span<const GroupedProcessData> processes,
                                      const TextMap<GroupedWatts>& groups, const WindowTimeline& timeline,
                                      std::int64_t maxAppSeries);

/// The average watts of each component: its energy over the sampled hours; where there are none, those of the
/// fallback snapshot, negative ones as 0.
ComponentDrain buildComponentAverages(const DetailsWindowSummary& summary, const DrainSnapshot& latest,
                                      const DrainSnapshot& fallbackSnapshot);

/// The model of a history without any snapshot.
DetailsPipelineOutput emptyDetailsReadModel(double windowSeconds, const DrainSnapshot& fallbackSnapshot);

/// Percent an hour, positive while discharging: see batteryDrainRatePerHour.
/// @param levels in percent, oldest first
std::optional<double> calculateBatteryDrainRate(std::span<const ChartPoint> levels);

}  // namespace quenzel
