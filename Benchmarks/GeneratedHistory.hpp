#pragma once

#include <cstdint>
#include <string>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel::benchmarks {

/// A snapshot such as recording makes: `processes` rows of which each has a source flag, a battery status,
/// and every eighth one a hidden workload. The same index gives the same snapshot, 20 s after the one before.
DrainSnapshot generatedSnapshot(std::int64_t index, std::int64_t processes);

/// A week of a snapshot each 20 s with 100 processes each.
inline constexpr std::int64_t weekSnapshots = 7 * 24 * 3600 / 20;
inline constexpr std::int64_t weekProcesses = 100;

/// Path of the database with that week, in the current folder's "generated-week.sqlite". It is made at the
/// first call (half a minute; says so on standard error) and kept for the next run.
const std::string& generatedWeek();

}  // namespace quenzel::benchmarks
