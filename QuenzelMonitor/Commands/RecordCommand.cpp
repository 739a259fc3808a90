#include "QuenzelMonitor/Commands/RecordCommand.hpp"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Base/Environment.hpp"
#include "Base/MonotonicClock.hpp"
#include "Base/Number.hpp"
#include "Base/Text.hpp"
#include "Engine/SnapshotRecorder.hpp"
#include "MetricsCollectors/DefaultShellRunner.hpp"
#include "Platform/BundleInformation.hpp"
#include "Platform/IgnoredSignals.hpp"
#include "Platform/StopSignals.hpp"
#include "QuenzelMonitor/Commands/Arguments.hpp"
#include "QuenzelMonitor/Commands/HistoryDatabase.hpp"
#include "QuenzelMonitor/Commands/LastingMessage.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"
#include "SharedModels/Snapshot/SamplingConfig.hpp"
#include "SharedModels/Snapshot/SnapshotQuality.hpp"

namespace quenzel {
namespace {

struct RecordOptions {
  std::optional<std::string> database;
  std::string mode{rawValue(SamplingMode::background)};
  double intervalSeconds = 0;  ///< 0: the mode's
  std::int64_t count = 0;      ///< 0: until stopped
  double keepDays = 0;         ///< 0: for ever
  bool json = false;
  bool quiet = false;
};

double intervalOf(const RecordOptions& options) {
  if (options.intervalSeconds > 0) return options.intervalSeconds;
  SamplingSettings settings;
  settings.samplingMode = samplingMode(options.mode).value_or(SamplingMode::background);
  return static_cast<double>(SamplingConfig(settings).activeIntervalSec());
}

/// The watts of a snapshot by where they went.
std::string figures(const RecordedCycle& cycle) {
  const DrainSnapshot& snapshot = cycle.snapshot;
  return fmt::format(
      "{:.2f} W: {} {:.2f} W, hidden {:.2f} W, display and USB {:.2f} W, unattributed {:.2f} W{}",
      snapshot.totalDischargeW,
      quantity(static_cast<std::int64_t>(snapshot.processes.size()), "process", "processes"),
      attributedProcessW(snapshot), hiddenWorkloadW(snapshot), snapshot.components.displayPlusUsbW(),
      snapshot.unattributedW, cycle.modelled ? " (modelled)" : "");
}

/// @param reason of a rejection
std::string textLine(const RecordedCycle& cycle, std::string_view reason) {
  const PointInTime time = cycle.snapshot.timestamp;
  return fmt::format("{} {} {} {}", rawValue(cycle.outcome), shortestDecimal(time.secondsSince1970()),
                     localTimestampText(time), reason.empty() ? figures(cycle) : printableLine(reason));
}

std::string jsonLine(const RecordedCycle& cycle) {
  const DrainSnapshot& snapshot = cycle.snapshot;
  nlohmann::ordered_json line = {{"outcome", rawValue(cycle.outcome)},
                                 {"timestamp", snapshot.timestamp.secondsSince2001},
                                 {"databaseTimestamp", snapshot.timestamp.secondsSince1970()},
                                 {"time", iso8601Text(snapshot.timestamp)}};
  if (!cycle.reason.empty()) line["reason"] = printableLine(cycle.reason);
  if (cycle.outcome != RecordingOutcome::failed) {
    line["totalDischargeW"] = snapshot.totalDischargeW;
    line["processCount"] = snapshot.processes.size();
    line["processW"] = attributedProcessW(snapshot);
    line["hiddenW"] = hiddenWorkloadW(snapshot);
    line["screenW"] = snapshot.components.screenW;
    line["usbW"] = snapshot.components.usbW;
    line["unattributedW"] = snapshot.unattributedW;
    line["modelled"] = cycle.modelled;
  }
  return encodeJSON(line);
}

/// The closing line.
std::string tallyLine(const RecordingTally& tally, bool json) {
  nlohmann::ordered_json object = {{"outcome", "ended"}};
  std::string text = "ended:";
  for (const RecordingOutcome outcome : allRecordingOutcomes) {
    object[std::string(rawValue(outcome))] = tally[outcome];
    text += fmt::format(" {} {}", tally[outcome], rawValue(outcome));
  }
  return json ? encodeJSON(object) : text;
}

void printLine(const std::string& line, const RecordOptions& options, Console& console) {
  if (options.quiet) return;
  console.out << line << '\n';
  console.out.flush();
  if (!console.out) throw CommandError("can't write the output");
}

/// The log's own line also goes to standard error, unless the log is switched off.
void tell(void (*log)(std::string_view component, std::string_view message), const std::string& text,
          Console& console) {
  log("SnapshotRecorder", printableLine(text));
  const auto* const info = platform::mainBundle().infoDictionary();
  if (RuntimeLog::isDisabled(environmentValue("QZL_LOG_DISABLED"), info))
    reportError(CommandError(text), console);
}

/// What this user may not read, with the remedy.
std::string refusals(const SamplingCycleResult& sampled) {
  std::string text;
  for (const UnavailableSource& source : sampled.unavailable) {
    if (source.isRefusal)
      text += fmt::format("{}{}: {}", text.empty() ? "" : "; ", source.source, trimmed(source.reason));
  }
  return text;
}

/// Dropped snapshots had a better one of the same moment.
bool nothingIsStored(const RecordingTally& tally) {
  return tally[RecordingOutcome::inserted] + tally[RecordingOutcome::replacedNearDuplicate] +
             tally[RecordingOutcome::droppedNearDuplicate] ==
         0;
}

int record(SQLiteSnapshotStore& store, const RecordOptions& options, Console& console) {
  const platform::StopSignals stop;
  // A reader of the output that went away shows as a failing write, not as the end.
  platform::ignoreBrokenPipes();
  const DefaultShellRunner shell;
  SamplingCycle cycle(shell);
  SnapshotRecorderOptions recording{.intervalSeconds = intervalOf(options), .cycleCount = options.count};
  if (options.keepDays > 0) recording.keepDays = options.keepDays;
  recording.logicalCPUCount = std::max<std::int64_t>(std::thread::hardware_concurrency(), 1);

  if (!options.json) {
    printLine(
        fmt::format("recording every {} s into {}", recording.intervalSeconds, printableLine(store.path())),
        options, console);
  }
  store.interruptWhen([&stop] { return stop.waitFor(0); });
  std::string refused;
  LastingMessage rejection, refusal;
  SnapshotRecorder recorder(
      {.sample =
           [&cycle, &refused] {
             SamplingCycleResult sampled = cycle.run();
             refused = refusals(sampled);
             return sampled;
           },
       .insert = [&store](const DrainSnapshot& snapshot) { return store.insert(snapshot); },
       .purge = [&store](PointInTime olderThan) { return store.purgeSnapshots(olderThan); },
       .newestStored =
           [&store] {
             const auto newest = store.fetchLatest(1);
             return newest.empty() ? std::nullopt : std::optional(newest.front().timestamp);
           },
       .now = now,
       .monotonicSeconds = monotonicSeconds,
       .waitForStop = [&stop](double seconds) { return stop.waitFor(seconds); },
       .report =
           [&](const RecordedCycle& recorded) {
             const double seconds = monotonicSeconds();
             const bool isRejected = recorded.outcome == RecordingOutcome::rejected;
             const bool isLasting = isRejected && !rejection.isDue(recorded.reason, seconds);
             if (!isRejected) rejection.isDue("", seconds);
             if (options.json) {
               printLine(jsonLine(recorded), options, console);
             } else if (recorded.outcome != RecordingOutcome::failed) {
               printLine(textLine(recorded, isLasting ? "for the same reason as before" : recorded.reason),
                         options, console);
             }
             const bool isSaid = isRejected && !options.json && !options.quiet;  // in its reason
             if (!isSaid && refusal.isDue(refused, seconds)) tell(RuntimeLog::warn, refused, console);
           },
       .notice = [&](const std::string& text) { tell(RuntimeLog::warn, text, console); },
       .complain = [&](const std::string& failure) { tell(RuntimeLog::error, failure, console); }},
      recording);
  const RecordingTally tally = recorder.run();
  printLine(tallyLine(tally, options.json), options, console);
  return nothingIsStored(tally) && !stop.waitFor(0) ? exitFailure : exitSuccess;
}

}  // namespace

void addRecordCommand(CLI::App& app, std::function<int()>& command, Console& console) {
  CLI::App* recordApp = app.add_subcommand("record", "Record the history until it is stopped");
  const auto options = std::make_shared<RecordOptions>();
  // A sample of the power counters takes a second (where a cycle takes longer than the interval, the recorder
  // lengthens it); and of a longer interval only a minute's energy would count.
  constexpr double shortestIntervalSeconds = 2, longestIntervalSeconds = 60;
  constexpr double longestKeptDays = 36500;
  addDatabaseOption(*recordApp, options->database);
  recordApp->add_option("--mode", options->mode, "a cycle every 20, 8 or 8 seconds")
      ->type_name("MODE")
      ->check(CLI::IsMember({"background", "interactive", "burst"}))
      ->capture_default_str();
  addNumberOption(*recordApp, "--interval", options->intervalSeconds, shortestIntervalSeconds,
                  longestIntervalSeconds, "time between cycles, in place of the mode's")
      ->type_name("SECONDS");
  addIntegerOption(*recordApp, "--count", options->count, 1, anyCount,
                   "stop after that many cycles; never when left out");
  addNumberOption(*recordApp, "--keep-days", options->keepDays, 0.01, longestKeptDays,
                  "delete what is older, at the start and from time to time; nothing when left out")
      ->type_name("DAYS");
  recordApp->add_flag("--json", options->json, "print one JSON document a line");
  recordApp->add_flag("--quiet", options->quiet, "print nothing but failures");
  recordApp->callback([&command, &console, options] {
    command = [&console, options] {
      return withHistory(options->database, HistoryAccess::create,
                         [&](SQLiteSnapshotStore& store) { return record(store, *options, console); });
    };
  });
}

}  // namespace quenzel
