// What a window of the history costs to fold into groups, beside one hash-map pass over the same rows: at
// most three times as much. Three million rows would not fit into the memory of a small machine, so this is a
// tenth of a week; both costs go with the number of rows.

#include <benchmark/benchmark.h>

#include "Benchmarks/GeneratedHistory.hpp"
#include "SharedModels/DetailsDataPipeline/WindowedProcessSummary.hpp"

namespace quenzel::benchmarks {
namespace {

using History = std::vector<DrainSnapshot>;

History history(bool annotated) {
  History snapshots;
  for (std::int64_t index = 0; index < weekSnapshots / 10; ++index) {
    DrainSnapshot& snapshot = snapshots.emplace_back(generatedSnapshot(index, weekProcesses));
    if (annotated) continue;
    for (ProcessDrain& row : snapshot.processes) {
      row.displayName.reset();
      row.canonicalName.reset();
      row.processGroupKey.reset();
    }
  }
  return snapshots;
}

const History& annotatedHistory() {
  static const History snapshots = history(true);
  return snapshots;
}

void setRows(benchmark::State& state, const History& snapshots) {
  state.SetItemsProcessed(static_cast<std::int64_t>(snapshots.size()) * weekProcesses * state.iterations());
}

void boundHashPassOverRows(benchmark::State& state) {
  const History& snapshots = annotatedHistory();
  for (auto _ : state) {
    std::unordered_map<std::string_view, double> watts;
    for (const DrainSnapshot& snapshot : snapshots) {
      for (const ProcessDrain& row : snapshot.processes) watts[row.name] += row.drainW;
    }
    benchmark::DoNotOptimize(watts);
  }
  setRows(state, snapshots);
}
BENCHMARK(boundHashPassOverRows)->Unit(benchmark::kMillisecond);

void summarizeHistory(benchmark::State& state, const History& snapshots) {
  constexpr double everything = 1e9;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        WindowedProcessSummaryBuilder::summarize(snapshots, snapshots.back(), everything));
  }
  setRows(state, snapshots);
}

/// Rows as recording stores them, with their names.
void windowedSummary(benchmark::State& state) { summarizeHistory(state, annotatedHistory()); }
BENCHMARK(windowedSummary)->Unit(benchmark::kMillisecond);

/// Rows without names: a presentation context is built over the window first.
void windowedSummaryWithNaming(benchmark::State& state) { summarizeHistory(state, history(false)); }
BENCHMARK(windowedSummaryWithNaming)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quenzel::benchmarks
