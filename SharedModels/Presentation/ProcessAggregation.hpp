#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Base/TextMap.hpp"
#include "SharedModels/Presentation/ProcessNaming.hpp"
#include "SharedModels/Presentation/ProcessPresentationContext.hpp"

// Folds rows into the list that a person sees.
//
// Rows are folded by canonical name (visibleName), ignoring case, because the lower-case name identifies a
// visible row; of several spellings the one that sorts first is shown. A visible row is
// - for one process: its row, under its own PID and without members;
// - for several: the sums of their figures, the name and bundle of the member that represents them, a
//   synthetic PID made from the lower-case name, no parent, and the members listed beside it;
// - for one process that another visible row already stands for (it was stored twice, under two names): the
//   same as for several, so that no two rows share an id() and thereby their energy.
// Its displayName and canonicalName are the visible name; members are annotated (annotateProcess).
//
// Visible rows are ordered by energy, then by power, both descending, then by name and number; members by
// power, then by number and name. So the result depends on nothing but the values that went in.
//
// Power and energy that are negative or not finite count as 0. Nothing else is lost: the energies of the
// visible rows add up to those given for the names of the rows, and their power to that of the rows.
//
// Time is n log n in the rows, names and source flags.

namespace quenzel {

struct VisibleProcessGroupingResult {
  std::vector<ProcessDrain> processes;                  ///< the visible rows
  TextMap<double> processWhByID;                        ///< watt-hours of each visible row, by its id()
  TextMap<std::vector<ProcessDrain>> subprocessesByID;  ///< members, of rows under a synthetic number

  bool operator==(const VisibleProcessGroupingResult&) const = default;
};

struct UniqueProcessesResult {
  std::vector<ProcessDrain> processes;
  TextMap<double> processWhByID;
  TextMap<std::vector<ProcessDrain>> subprocessesByID;
  std::vector<HiddenDrain> hidden;  ///< one row a workload, ordered by power descending, then by id()

  bool operator==(const UniqueProcessesResult&) const = default;
};

namespace ProcessAttributionPresentationService {

/// The latest record of every process incarnation, in the order in which they first appeared.
/// @param snapshots oldest first
std::vector<ProcessDrain> uniqueLatestProcesses(std::span<const DrainSnapshot> snapshots);

/// The visible rows of a whole window: every process that it saw, with the energy it drew and its average
/// power.
/// @param snapshots the window, oldest first
/// @param processWhByID watt-hours over the window by ProcessDrain::id(); a process without an entry drew
///   none, and an entry without a row can't be shown and is left out
/// @param hiddenWhByID the same for hidden workloads, by HiddenDrain::id()
/// @param sampleHours the hours that were sampled: a row's watts are its energy over these. Where there are
///   none (0, negative or no number) the watts are those of the latest record.
/// @param fallbackSnapshot stands for the window when `snapshots` is empty
UniqueProcessesResult makeUniqueProcesses(std::span<const DrainSnapshot> snapshots,
                                          const TextMap<double>& processWhByID,
                                          const TextMap<double>& hiddenWhByID, double sampleHours,
                                          const DrainSnapshot& fallbackSnapshot,
                                          const ProcessPresentationContext& context);

/// The visible rows of one snapshot with the energy that their names drew over a window. Energy of a name
/// without a row in the snapshot (its processes ended within the window) is left out: rows are folded, not
/// made.
/// @param groupedWhByName watt-hours by visible name, as integrated from processWattsByDisplayName
VisibleProcessGroupingResult groupVisibleProcesses(const DrainSnapshot& snapshot,
                                                   const ProcessPresentationContext& context,
                                                   const TextMap<double>& groupedWhByName);

/// The row to show for a group.
/// @param groupedProcess carries the group's number and figures
/// @param subprocesses the members; none for a row that stands for itself
ProcessDrain visibleRepresentative(std::string_view groupName, ProcessDrain groupedProcess,
                                   std::span<const ProcessDrain> subprocesses);

/// The member whose name and bundle stand for the group (without members the grouped row itself): of those
/// that bear the group's name and lie in an application bundle, else of all, the one with the highest
/// presentation score, then the one that is the bundle's own executable, then a root of the group, then the
/// lowest number, then the name that sorts first. Power plays no part, so the choice is steady.
/// @return one of the arguments
const ProcessDrain& bestVisibleRepresentativeSource(std::string_view groupName,
                                                    const ProcessDrain& groupedProcess,
                                                    std::span<const ProcessDrain> subprocesses);

/// The power of each visible name in one snapshot. Costs two hash look-ups a row, and a text for each name.
TextMap<double> processWattsByDisplayName(const DrainSnapshot& snapshot,
                                          const ProcessPresentationContext& context);

/// The same without a context, where helpers need not be shown under their hosts: a row's name is its
/// executable's alias, else its display name, which the cache is asked for first and keeps.
TextMap<double> processWattsByDisplayName(const DrainSnapshot& snapshot,
                                          const TextMap<std::string>& aliasByExecutableLeaf,
                                          DisplayNameCache& displayNameCache);

}  // namespace ProcessAttributionPresentationService
}  // namespace quenzel
