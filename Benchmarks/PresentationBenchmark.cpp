// What naming a history costs, beside one hash-map pass over the same rows.
//
// A tenth of a week at an interval of 20 s: a whole week of 30,240 snapshots is a gigabyte of rows. The
// number of distinct processes is a tenth of a week's, too.

#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "SharedModels/Presentation/ProcessAttributionPresentationService.hpp"

namespace quenzel::benchmarks {
namespace {

namespace Presentation = ProcessAttributionPresentationService;

constexpr std::size_t snapshotCount = 3024;
constexpr std::size_t rowsPerSnapshot = 100;
constexpr std::size_t processCount = 300;

/// One process in eight is an application, the others are the children of one or stand alone.
ProcessDrain processNumber(std::size_t number) {
  ProcessDrain process;
  const std::size_t application = number / 8;
  process.pid = static_cast<std::int64_t>(1000 + number);
  if (number % 8 == 0) {
    process.name = fmt::format("/Applications/Editor {0}.app/Contents/MacOS/Editor {0}", application);
    process.bundleID = fmt::format("com.vendor.editor{}", application);
  } else {
    process.name = fmt::format("/usr/local/lib/vendor/helper-{}", number);
    process.parentPID = static_cast<std::int64_t>(1000 + (number % 2 == 1 ? application * 8 : number - 1));
  }
  process.drainW = 0.01 * static_cast<double>(number % 13);
  process.sourceFlags = {"powermetrics_cpu"};
  return process;
}

/// The processes drift through the history: most rows of a snapshot were in the one before it, in another
/// order.
const std::vector<DrainSnapshot>& history() {
  static const std::vector<DrainSnapshot> snapshots = [] {
    std::vector<DrainSnapshot> made(snapshotCount);
    for (std::size_t time = 0; time < snapshotCount; ++time) {
      const std::size_t first = time * (processCount - rowsPerSnapshot) / snapshotCount;
      made[time].timestamp = {20.0 * static_cast<double>(time)};
      for (std::size_t row = 0; row < rowsPerSnapshot; ++row)
        made[time].processes.push_back(processNumber(first + (row * 37 + time) % rowsPerSnapshot));
    }
    return made;
  }();
  return snapshots;
}

void setRows(benchmark::State& state) {
  state.SetItemsProcessed(static_cast<std::int64_t>(snapshotCount * rowsPerSnapshot) * state.iterations());
}

/// The least that any walk over the rows could do: one look-up by number, the row's place noted.
void boundHashPass(benchmark::State& state) {
  for (auto _ : state) {
    std::unordered_map<std::int64_t, const ProcessDrain*> latest;
    for (const DrainSnapshot& snapshot : history()) {
      for (const ProcessDrain& row : snapshot.processes) latest[row.pid] = &row;
    }
    benchmark::DoNotOptimize(latest);
  }
  setRows(state);
}
BENCHMARK(boundHashPass)->Unit(benchmark::kMillisecond);

/// The same, telling the incarnations of a number apart by its name.
void boundIdentityHashPass(benchmark::State& state) {
  for (auto _ : state) {
    std::unordered_map<ProcessIdentityView, const ProcessDrain*, ProcessIdentityHash> latest;
    for (const DrainSnapshot& snapshot : history()) {
      for (const ProcessDrain& row : snapshot.processes) latest[identityOf(row)] = &row;
    }
    benchmark::DoNotOptimize(latest);
  }
  setRows(state);
}
BENCHMARK(boundIdentityHashPass)->Unit(benchmark::kMillisecond);

/// At most three times the pass.
void contextBuild(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Presentation::makeLatestOnlyPresentationContext(history()));
  setRows(state);
}
BENCHMARK(contextBuild)->Unit(benchmark::kMillisecond);

/// Naming every row, snapshot by snapshot, as the windowed summary does.
void wattsByName(benchmark::State& state) {
  const ProcessPresentationContext context = Presentation::makeLatestOnlyPresentationContext(history());
  for (auto _ : state) {
    for (const DrainSnapshot& snapshot : history())
      benchmark::DoNotOptimize(Presentation::processWattsByDisplayName(snapshot, context));
  }
  setRows(state);
}
BENCHMARK(wattsByName)->Unit(benchmark::kMillisecond);

/// One snapshot more.
void contextExtension(benchmark::State& state) {
  const ProcessPresentationContext context = Presentation::makeLatestOnlyPresentationContext(history());
  const std::span<const DrainSnapshot> next(history().data(), 1);
  for (auto _ : state) benchmark::DoNotOptimize(Presentation::appendingPresentationContext(context, next));
}
BENCHMARK(contextExtension)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quenzel::benchmarks
