#pragma once

#include <span>
#include <string>
#include <vector>

#include "Base/CancellationToken.hpp"
#include "Base/TextMap.hpp"
#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

/// One group of processes as the details list it.
struct ProcessGroup {
  std::string id = {};                       ///< the group's name in lower case
  std::string canonicalName = {};            ///< the name to show
  double totalDrainW = 0;                    ///< at the range snapshot
  double totalEnergyWh = 0;                  ///< over the window
  std::vector<ProcessDrain> processes = {};  ///< the representative, and the members folded under it
  ProcessDrain iconProcess = {};             ///< the representative

  bool operator==(const ProcessGroup&) const = default;
};

/// What a window of the history drew, and who drew it.
struct WindowedProcessSummary {
  double totalWh = 0;                            ///< of the whole machine
  TextMap<double> groupedWhByName = {};          ///< watt-hours by visible name
  std::vector<ProcessGroup> processGroups = {};  ///< in the order to list them in
  DrainSnapshot rangeSnapshot = {};              ///< the newest of the window: stands for it in the list

  bool operator==(const WindowedProcessSummary&) const = default;
};

/// Folds a window of the history into groups of processes. Pure functions; a long window takes a while, so it
/// is for a task of its own.
namespace WindowedProcessSummaryBuilder {

/// The energy of a window and its groups. Rows are not copied, and each is named once. A process that has
/// ended within the window is in groupedWhByName, but in no group: groups are those of the range snapshot.
/// @param sourceRaw the history in any order
/// @param fallbackSnapshot stands for an empty history
/// @param windowSeconds how far the window reaches back from the newest snapshot
/// @param cancellation checked once an interval; once it is cancelled the rest is left out
WindowedProcessSummary summarize(std::span<const DrainSnapshot> sourceRaw,
                                 const DrainSnapshot& fallbackSnapshot, double windowSeconds,
                                 const CancellationToken& cancellation = {});

/// The snapshots of the window, oldest first: of those at most half a second apart only the better one, of
/// equally good ones the later. Never empty: the newest snapshot is in every window, and the fallback
/// snapshot is the window of an empty history.
std::vector<DrainSnapshot> windowedSnapshots(std::span<const DrainSnapshot> sourceRaw,
                                             const DrainSnapshot& fallbackSnapshot, double windowSeconds);

/// Whether time never runs back from one snapshot to the next.
bool isAscending(std::span<const DrainSnapshot> snapshots);

/// Whether every row has a display name and a canonical name that aren't blank, as annotateSnapshot stores
/// them: rows are then grouped by these, and nothing has to be derived from the history. True without rows.
bool hasStoredPresentationData(std::span<const DrainSnapshot> snapshots);

/// Adds the energy of one interval to each name: the mean of its watts at both ends (0 where it is missing)
/// times the interval. A name without energy gets no entry. Does nothing unless intervalHours is above 0.
void accumulateAverageEnergy(const TextMap<double>& previous, const TextMap<double>& current,
                             double intervalHours, TextMap<double>& whByName);

}  // namespace WindowedProcessSummaryBuilder

}  // namespace quenzel
