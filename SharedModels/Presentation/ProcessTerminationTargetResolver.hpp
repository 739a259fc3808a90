#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <unordered_set>
#include <vector>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

/// Orders the processes that quitting one visible row ends: the application itself first (its bundle, its
/// name, its executable in the bundle, the root of its tree), then its helpers. Pure functions.
namespace quenzel::ProcessTerminationTargetResolver {

/// Compared from the first on, larger is more important: same bundle identifier as the grouped row, same
/// display name (both in any case), directAppExecutableScore, hasBundleIDScore, root of the group (its parent
/// is no member), processPresentationScore.
using Priority = std::array<int, 6>;

/// @param memberPIDs the numbers of the group's members
Priority terminationPriority(const ProcessDrain& member, const ProcessDrain& groupedProcess,
                             const std::unordered_set<std::int64_t>& memberPIDs);

/// 1 for an executable in "Contents/MacOS" of its outermost application bundle, else 0.
int directAppExecutableScore(const ProcessDrain& process);

/// 1 for a bundle identifier that isn't blank, else 0.
int hasBundleIDScore(const ProcessDrain& process);

/// The members' numbers, most important first, of equal ones the lower number; each once, none below 1. A
/// number that doesn't fit 32 bits is a fatal error.
std::vector<std::int32_t> prioritizedTerminationTargets(const ProcessDrain& groupedProcess,
                                                        std::span<const ProcessDrain> subprocesses);

/// The numbers to end, in order: those of the members that are real processes; where there are none, the
/// grouped row's own if it is real, else nothing.
std::vector<std::int32_t> targetPIDs(const ProcessDrain& groupedProcess,
                                     std::span<const ProcessDrain> subprocesses);

}  // namespace quenzel::ProcessTerminationTargetResolver
