#include "Engine/SnapshotRecorder.hpp"

#include <algorithm>
#include <cmath>
#include <exception>
#include <span>
#include <utility>

#include <fmt/format.h>

#include "Base/Text.hpp"
#include "Engine/Attribution.hpp"
#include "SharedModels/Presentation/SnapshotAnnotation.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"
#include "SharedModels/Snapshot/SnapshotPublicationPolicy.hpp"

namespace quenzel {
namespace {

constexpr double hourSeconds = 3600;
constexpr double daySeconds = 24 * hourSeconds;

RecordingOutcome outcomeOf(SnapshotInsertOutcome outcome) {
  switch (outcome) {
    case SnapshotInsertOutcome::inserted:
      return RecordingOutcome::inserted;
    case SnapshotInsertOutcome::replacedNearDuplicate:
      return RecordingOutcome::replacedNearDuplicate;
    case SnapshotInsertOutcome::droppedNearDuplicate:
      break;
  }
  return RecordingOutcome::droppedNearDuplicate;
}

/// Whether every source answered that the machine has.
bool isWhole(const SamplingCycleResult& sampled) {
  return sampled.build.metadata.powermetricsCommandOK &&
         (sampled.build.batteryStatus.has_value() || !sampled.hasBattery);
}

/// A process may call itself anything, blanks and "/" included, and one row without a name would keep its
/// whole snapshot out of the store.
void nameTheNameless(DrainSnapshot& snapshot) {
  for (ProcessDrain& row : snapshot.processes) {
    for (auto* const name : {&row.displayName, &row.canonicalName, &row.processGroupKey}) {
      if (!*name || isBlank(**name)) *name = fmt::format("pid {}", row.pid);
    }
  }
}

/// The moments at which cycles start, on the monotonic clock.
class Cadence {
 public:
  Cadence(double startSeconds, double intervalSeconds)
      : startSeconds_(startSeconds), intervalSeconds_(intervalSeconds) {}

  double intervalSeconds() const { return intervalSeconds_; }
  double nextSeconds() const { return startSeconds_ + slot_ * intervalSeconds_; }

  /// Moves on to the first start that is still to come.
  void advance(double nowSeconds) {
    const double passedSlots = std::floor((nowSeconds - startSeconds_) / intervalSeconds_);
    slot_ = std::max(slot_, passedSlots) + 1;
  }

  /// Takes note of how long a cycle took. One may be slow by chance (a tool timed out, the machine slept);
  /// two in a row show that the interval is too short. It then becomes what both took and a tenth more, in
  /// whole seconds, counted from the start of the later one.
  /// @return whether this cycle lengthened the interval
  bool lengthen(double cycleStartSeconds, double cycleSeconds) {
    const double bothTookSeconds = std::min(cycleSeconds, std::exchange(previousCycleSeconds_, cycleSeconds));
    if (bothTookSeconds < intervalSeconds_) return false;
    constexpr double headroom = 1.1;
    startSeconds_ = cycleStartSeconds;
    intervalSeconds_ = std::ceil(bothTookSeconds * headroom);
    slot_ = 0;
    return true;
  }

 private:
  double startSeconds_;
  double intervalSeconds_;
  double slot_ = 0;
  double previousCycleSeconds_ = 0;
};

DrainSnapshot named(const DrainSnapshot& snapshot) {
  DrainSnapshot annotated =
      ProcessAttributionPresentationService::annotateSnapshot(snapshot, std::span(&snapshot, 1));
  nameTheNameless(annotated);
  return annotated;
}

}  // namespace

std::string_view rawValue(RecordingOutcome outcome) {
  switch (outcome) {
    case RecordingOutcome::inserted:
      return "inserted";
    case RecordingOutcome::replacedNearDuplicate:
      return "replacedNearDuplicate";
    case RecordingOutcome::droppedNearDuplicate:
      return "droppedNearDuplicate";
    case RecordingOutcome::rejected:
      return "rejected";
    case RecordingOutcome::failed:
      break;
  }
  return "failed";
}

SnapshotRecorder::SnapshotRecorder(Collaborators collaborators, const SnapshotRecorderOptions& options)
    : with_(std::move(collaborators)), options_(options) {}

RecordingTally SnapshotRecorder::run() {
  RecordingTally tally;
  const double start = with_.monotonicSeconds();
  nextPurgeSeconds_ = start;
  purgeWhenDue();
  Cadence cadence(start, options_.intervalSeconds);
  for (std::int64_t done = 0; options_.cycleCount == 0 || done < options_.cycleCount; ++done) {
    if (with_.waitForStop(std::max(cadence.nextSeconds() - with_.monotonicSeconds(), 0.0))) break;
    const double cycleStart = with_.monotonicSeconds();
    const auto cycle = runCycle();
    if (!cycle) break;
    const double cycleSeconds = with_.monotonicSeconds() - cycleStart;
    tally.count(cycle->outcome);
    with_.report(*cycle);
    const double tooShort = cadence.intervalSeconds();
    if (cadence.lengthen(cycleStart, cycleSeconds)) {
      with_.notice(fmt::format("cycles take longer than {} s: from now on there is one every {} s", tooShort,
                               cadence.intervalSeconds()));
    }
    purgeWhenDue();
    cadence.advance(with_.monotonicSeconds());
  }
  return tally;
}

std::optional<RecordedCycle> SnapshotRecorder::runCycle() {
  RecordedCycle cycle;
  cycle.snapshot.timestamp = with_.now();
  bool whole = false;
  std::string_view trouble = "the cycle failed";
  try {
    const SamplingCycleResult sampled = with_.sample();
    whole = isWhole(sampled);
    if (!whole && with_.waitForStop(0)) return std::nullopt;
    trouble = "can't store the snapshot";
    store(sampled, cycle);
  } catch (const std::exception& error) {
    if (!whole && with_.waitForStop(0)) return std::nullopt;
    cycle.outcome = RecordingOutcome::failed;
    // A tool's own words end with a line feed.
    cycle.reason = fmt::format("{}: {}", trouble, trimmed(error.what()));
    with_.complain(cycle.reason);
  }
  return cycle;
}

void SnapshotRecorder::store(const SamplingCycleResult& sampled, RecordedCycle& cycle) {
  cycle.modelled = sampled.modelled.any();
  cycle.snapshot = attribute(sampled.build, {.onBattery = sampled.onBattery,
                                             .logicalCPUCount = options_.logicalCPUCount,
                                             .modelled = sampled.modelled,
                                             .componentPower = sampled.componentPower,
                                             .batteryLevelKnown = sampled.batteryLevelKnown});
  const auto decision = SnapshotPublicationPolicy::decision(cycle.snapshot);
  if (const auto reason = rejectionReason(decision)) {
    cycle.outcome = RecordingOutcome::rejected;
    cycle.reason = *reason;
    for (const UnavailableSource& source : sampled.unavailable)
      cycle.reason += fmt::format("; {}: {}", source.source, trimmed(source.reason));
    return;
  }
  cycle.snapshot = named(cycle.snapshot);
  dropNegligibleRows(cycle.snapshot);
  cycle.outcome = outcomeOf(with_.insert(cycle.snapshot));
}

void SnapshotRecorder::purge(double keptSeconds) {
  const auto newest = with_.newestStored();
  if (!newest) return;
  const std::int64_t purged = with_.purge(std::min(*newest, with_.now()) - keptSeconds);
  if (purged > 0) RuntimeLog::info("SnapshotRecorder", fmt::format("purged {} old snapshots", purged));
}

void SnapshotRecorder::purgeWhenDue() {
  if (!options_.keepDays || with_.monotonicSeconds() < nextPurgeSeconds_) return;
  const double keptSeconds = *options_.keepDays * daySeconds;
  try {
    purge(keptSeconds);
    nextPurgeSeconds_ = with_.monotonicSeconds() + std::clamp(keptSeconds / 10, hourSeconds, daySeconds);
  } catch (const std::exception& error) {
    nextPurgeSeconds_ = with_.monotonicSeconds() + hourSeconds;
    with_.complain(fmt::format("can't purge the history: {}", error.what()));
  }
}

}  // namespace quenzel
