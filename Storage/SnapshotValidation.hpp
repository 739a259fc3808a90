#pragma once

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

/// Refuses a snapshot that could not be shown or read back: a process row without a display name, a canonical
/// name or a group key; a number that is infinite or none, in whatever record it stands; a PID of more than
/// 32 bits, which no system has and the table has no room for. Any finite number is taken.
/// @throws SnapshotStoreError naming the first culprit
void validateForInsertion(const DrainSnapshot& snapshot);

}  // namespace quenzel
