#include "SharedModels/Snapshot/SnapshotPublicationPolicy.hpp"

#include <array>

namespace quenzel {
namespace {

using enum SnapshotPublicationDecision;

struct Wording {
  SnapshotPublicationDecision decision;
  std::string_view rawValue;
  std::optional<std::string_view> rejectionReason;
};

/// In the order of the cases.
constexpr std::array kWordings = std::to_array<Wording>({
    {publishable, "publishable", std::nullopt},
    {insufficientTotalPower, "insufficientTotalPower", "total power was not high enough to publish"},
    {missingAttributedProcesses, "missingAttributedProcesses",
     "powermetrics reported attributed power but no processes were publishable"},
    {missingProcessDrain, "missingProcessDrain",
     "powermetrics reported attributed power but process drain summed to zero"},
});

const Wording& wording(SnapshotPublicationDecision decision) {
  return kWordings.at(static_cast<std::size_t>(decision));
}

constexpr double kLargestRejectedTotalW = 0.1;

}  // namespace

std::string_view rawValue(SnapshotPublicationDecision decision) { return wording(decision).rawValue; }

std::optional<SnapshotPublicationDecision> snapshotPublicationDecision(std::string_view text) {
  for (const Wording& row : kWordings) {
    if (row.rawValue == text) return row.decision;
  }
  return std::nullopt;
}

bool isPublishable(SnapshotPublicationDecision decision) { return decision == publishable; }

std::optional<std::string_view> rejectionReason(SnapshotPublicationDecision decision) {
  return wording(decision).rejectionReason;
}

SnapshotPublicationDecision SnapshotPublicationPolicy::decision(const DrainSnapshot& snapshot) {
  return snapshot.totalDischargeW <= kLargestRejectedTotalW ? insufficientTotalPower : publishable;
}

}  // namespace quenzel
