#pragma once

#include <optional>
#include <span>
#include <vector>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

/// What the graphs need of a stored snapshot: its power by where it went, and the battery. A week of them is
/// small, so they may come straight from the store's columns, without the snapshots' rows.
struct PreparedSnapshot {
  PointInTime timestamp = {};
  double totalW = 0;      ///< the whole machine's draw
  double processW = 0;    ///< what its processes were given; negative shares count 0
  double componentW = 0;  ///< display and USB
  double unattributedW = 0;
  bool onBatteryPower = false;                     ///< false as well when nobody knew
  std::optional<double> batteryLevelPercent = {};  ///< absent without a battery reading

  bool operator==(const PreparedSnapshot&) const = default;
};

// CPU, GPU and memory are no further parts of the total: what they draw, the processes draw through them.
// So processes, components and the rest add up to the total, hidden workloads apart.

namespace GraphBuildEngine {

PreparedSnapshot preparedSnapshot(const DrainSnapshot& snapshot);
std::vector<PreparedSnapshot> preparedSnapshots(std::span<const DrainSnapshot> snapshots);

}  // namespace GraphBuildEngine

}  // namespace quenzel
