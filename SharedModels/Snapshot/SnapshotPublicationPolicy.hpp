#pragma once

#include <optional>
#include <string_view>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

/// Whether a snapshot may be shown and stored, and if not, why. The last two are found only by checks that
/// look at the rows, not by SnapshotPublicationPolicy.
enum class SnapshotPublicationDecision {
  publishable,
  insufficientTotalPower,
  missingAttributedProcesses,
  missingProcessDrain,
};

/// The case's own name.
std::string_view rawValue(SnapshotPublicationDecision decision);
/// The decision of exactly that raw value.
std::optional<SnapshotPublicationDecision> snapshotPublicationDecision(std::string_view rawValue);

bool isPublishable(SnapshotPublicationDecision decision);
/// The reason for people; absent for a publishable snapshot.
std::optional<std::string_view> rejectionReason(SnapshotPublicationDecision decision);

namespace SnapshotPublicationPolicy {
/// A total of at most 0.1 W is too little to publish. A total that is no number is not too little.
SnapshotPublicationDecision decision(const DrainSnapshot& snapshot);
}  // namespace SnapshotPublicationPolicy

}  // namespace quenzel
