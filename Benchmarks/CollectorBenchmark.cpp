// What the engine spends on the texts of a sampling cycle, beside a plain pass over the same bytes.

#include <cstring>

#include <benchmark/benchmark.h>

#include "Benchmarks/Captures.hpp"
#include "MetricsCollectors/BatteryStatusCollector.hpp"
#include "MetricsCollectors/LiveAttributionInputBuilder.hpp"
#include "MetricsCollectors/PowermetricsParser.hpp"
#include "MetricsCollectors/ProcessSampler.hpp"
#include "MetricsCollectors/SMCReader.hpp"

namespace quenzel::benchmarks {
namespace {

/// Answers nothing: these benchmarks hand the texts in.
class NoShell final : public ShellRunning {
 public:
  ShellResult run(const std::string&, const std::vector<std::string>&) const override { return {}; }
};

/// The plainest reader of a text: looks at every byte and notes where each line begins and ends.
std::vector<std::string_view> cutIntoLines(const std::string& text) {
  std::vector<std::string_view> lines;
  std::size_t start = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\n') continue;
    lines.emplace_back(text.data() + start, at - start);
    start = at + 1;
  }
  return lines;
}

/// The fastest: memchr(3) looks at many bytes at once, and nothing is kept.
std::size_t countLines(const std::string& text) {
  std::size_t lines = 0;
  const char* const end = text.data() + text.size();
  for (const char* at = text.data(); at < end; ++lines) {
    at = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
    if (!at) break;
    ++at;
  }
  return lines;
}

void setBytes(benchmark::State& state, const std::string& text) {
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * state.iterations());
}

void boundNewlineScan(benchmark::State& state) {
  const std::string text = powermetricsCapture(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(cutIntoLines(text));
  setBytes(state, text);
}
BENCHMARK(boundNewlineScan)->Arg(1000);

void boundMemchrScan(benchmark::State& state) {
  const std::string text = powermetricsCapture(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(countLines(text));
  setBytes(state, text);
}
BENCHMARK(boundMemchrScan)->Arg(1000);

void powermetricsParse(benchmark::State& state) {
  const std::string text = powermetricsCapture(static_cast<std::size_t>(state.range(0)));
  const PowermetricsParser parser;
  for (auto _ : state) benchmark::DoNotOptimize(parser.parse(text));
  setBytes(state, text);
}
BENCHMARK(powermetricsParse)->Arg(1000);

void boundPSNewlineScan(benchmark::State& state) {
  const std::string text = psCapture(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(cutIntoLines(text));
  setBytes(state, text);
}
BENCHMARK(boundPSNewlineScan)->Arg(200)->Arg(1000)->Arg(5000);

void psParseAndRank(benchmark::State& state) {
  const std::string text = psCapture(static_cast<std::size_t>(state.range(0)));
  const auto limit = static_cast<std::size_t>(state.range(1));
  for (auto _ : state) benchmark::DoNotOptimize(ProcessSampler::parse(text, limit));
  setBytes(state, text);
}
BENCHMARK(psParseAndRank)
    ->Args({200, 1000})
    ->Args({1000, 1000})
    ->Args({5000, 1000})
    ->Args({200'000, 200'000});

/// Everything between the tools' texts and the merged list, with every process's metadata cached: at most 0.5
/// ms.
void parseRankMerge(benchmark::State& state) {
  const auto processes = static_cast<std::size_t>(state.range(0));
  const std::string psText = psCapture(processes);
  const std::string powermetricsText = powermetricsCapture(processes);
  const NoShell shell;
  RunningProcessMetadataCache cache;
  const RunningProcessMetadataLookup lookup = [](std::int32_t pid) {
    return RunningProcessMetadata{fmt::format("/usr/lib/vendor/service-{}", pid), {}, {}};
  };
  ComponentProfiler profiler;
  const auto fixedTime = [] { return PointInTime{0}; };
  const ProcessSampler sampler(
      shell, {lookup, cache, [](const std::string&) { return false; }, fixedTime, profiler});
  const PowermetricsCollector powermetrics(shell);
  const BatteryStatusCollector battery(shell);
  SMCReader smc;
  const DisplayPowerEstimator display(smc);
  const USBPowerEstimator usb(&smc);
  const LiveAttributionInputBuilder builder(
      {sampler, powermetrics, display, usb, battery, lookup, cache, fixedTime, profiler});
  const PowermetricsParser parser;
  for (auto _ : state) {
    std::vector<ProcessSample> samples = sampler.snapshotFrom(psText, 1000, false).sampledProcesses;
    builder.merge(samples, parser.parse(powermetricsText), fixedTime());
    benchmark::DoNotOptimize(samples);
  }
}
BENCHMARK(parseRankMerge)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quenzel::benchmarks
