#pragma once

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

// Of two snapshots of the same moment the better one is kept: the one that attributes any power worth
// speaking of to processes, and then the one that attributes more of the total.

/// The watts of all processes; a negative share, or one that is no number, counts 0.
double attributedProcessW(const DrainSnapshot& snapshot);

/// The watts of all hidden workloads.
double hiddenWorkloadW(const DrainSnapshot& snapshot);

/// From 0 to 2: the attributed part of the total (of at least 0.1 W), at most 1, and 1 more for more than
/// 0.05 W.
double snapshotQuality(double totalW, double attributedW);
double snapshotQuality(const DrainSnapshot& snapshot);

}  // namespace quenzel
