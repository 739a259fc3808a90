#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Base/PointInTime.hpp"
#include "Engine/SamplingCycle.hpp"
#include "SharedModels/Snapshot/DrainSnapshot.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"

namespace quenzel {

/// What became of one cycle.
enum class RecordingOutcome {
  inserted,
  replacedNearDuplicate,
  droppedNearDuplicate,
  rejected,  ///< not publishable
  failed,    ///< the cycle or the insertion
};

inline constexpr std::array allRecordingOutcomes{
    RecordingOutcome::inserted, RecordingOutcome::replacedNearDuplicate,
    RecordingOutcome::droppedNearDuplicate, RecordingOutcome::rejected, RecordingOutcome::failed};

/// The case's own name.
std::string_view rawValue(RecordingOutcome outcome);

struct RecordedCycle {
  RecordingOutcome outcome = RecordingOutcome::failed;
  DrainSnapshot snapshot = {};  ///< as far as the cycle came: at least its time
  std::string reason = {};      ///< of a rejection or a failure
  bool modelled = false;        ///< whether figures come from modelled hardware
};

/// How many cycles came to which outcome.
class RecordingTally {
 public:
  void count(RecordingOutcome outcome) { ++counts_.at(static_cast<std::size_t>(outcome)); }
  std::int64_t operator[](RecordingOutcome outcome) const {
    return counts_.at(static_cast<std::size_t>(outcome));
  }

 private:
  std::array<std::int64_t, allRecordingOutcomes.size()> counts_{};
};

struct SnapshotRecorderOptions {
  double intervalSeconds = 20;
  std::int64_t cycleCount = 0;  ///< 0: until stopped
  std::optional<double> keepDays = {};
  std::int64_t logicalCPUCount = 1;
};

/// Records the history: samples, attributes, names and stores, cycle after cycle. Not thread-safe.
///
/// Cadence: cycles start at multiples of the interval on the monotonic clock. Those that lie in the past when
/// a cycle ends (it took long, or the machine slept) are left out, never caught up with. When two cycles in a
/// row take the whole interval, it is lengthened to one that they fit into, and the user is told.
///
/// Wall clock: it only stamps the snapshots. Where it is set back, snapshots go on being stored at the times
/// that it shows, between older ones; the rule against near duplicates looks at the newest row alone, so that
/// at most one meets it (and replaces it, or is dropped) as the clock passes that time again.
///
/// Names: they come from all processes of the cycle itself, those too idle to be stored included, so that a
/// helper finds the application that it belongs to. Nothing is kept from cycle to cycle: the recorder needs
/// no more memory after weeks than after a minute, and no process is named after a pid's former owner.
///
/// Retention: history older than `keepDays`, counted back from the newest snapshot or from now, whichever is
/// earlier (a clock that runs ahead must not cost the history), goes at the start and then after every tenth
/// of that span, but no sooner than after an hour, since a purge rewrites the whole database, and no later
/// than after a day.
class SnapshotRecorder {
 public:
  /// The world outside. `report`, `notice` and `complain` may throw, which ends the recording; a throw of
  /// anything else is a failure of that cycle or purge, and the next one comes.
  struct Collaborators {
    std::function<SamplingCycleResult()> sample;
    std::function<SnapshotInsertOutcome(const DrainSnapshot&)> insert;  ///< returns behind the commit
    std::function<std::int64_t(PointInTime olderThan)> purge;
    std::function<std::optional<PointInTime>()> newestStored;  ///< the time of the newest snapshot
    std::function<PointInTime()> now;                          ///< the wall clock
    std::function<double()> monotonicSeconds;
    std::function<bool(double seconds)> waitForStop;  ///< up to so long; whether recording is to stop
    std::function<void(const RecordedCycle&)> report;
    std::function<void(const std::string& text)> notice;  ///< tells the user what is no failure
    std::function<void(const std::string& failure)> complain;
  };

  SnapshotRecorder(Collaborators collaborators, const SnapshotRecorderOptions& options);

  /// Runs until the count is reached or a stop is wanted: at once where it waits for the next cycle, else
  /// behind the cycle that is running. A cycle whose tools failed while a stop was wanted is thrown away: the
  /// interrupt key reaches the tools as well.
  RecordingTally run();

 private:
  std::optional<RecordedCycle> runCycle();
  void purge(double keptSeconds);
  void store(const SamplingCycleResult& sampled, RecordedCycle& cycle);
  void purgeWhenDue();

  Collaborators with_;
  SnapshotRecorderOptions options_;
  double nextPurgeSeconds_ = 0;  ///< on the monotonic clock
};

}  // namespace quenzel
