// What a week of the power trend costs to smooth and to thin, for each point, beside a plain copy of the
// points.

#include <cmath>

#include <benchmark/benchmark.h>

#include "SharedModels/GraphBuildEngine/PowerTrendSmoothing.hpp"
#include "SharedModels/GraphBuildEngine/TrendDownsampling.hpp"

namespace quenzel::benchmarks {
namespace {

constexpr std::size_t pointsOfAWeek = 30240;  // one every 20 seconds
constexpr std::int64_t graphMaxPoints = 300;

/// A machine whose load rises and falls, under noise, with a reading missed now and then.
std::vector<PowerTrendPoint> weekOfPoints() {
  std::vector<PowerTrendPoint> points;
  std::uint32_t random = 1;
  for (std::size_t i = 0; i < pointsOfAWeek; ++i) {
    random = random * 1664525 + 1013904223;
    const double noise = random / 4294967296.0;
    const double totalW = i % 97 == 0 ? 0.2 : 15 + 10 * std::sin(static_cast<double>(i) / 180) + 8 * noise;
    points.push_back({.id = static_cast<TrendPointID>(i),
                      .timestamp = {static_cast<double>(i) * 20},
                      .totalW = totalW,
                      .processW = totalW * 0.6,
                      .componentW = totalW * 0.9 * noise,
                      .unattributedW = totalW * 0.1,
                      .onBatteryPower = i % 500 < 100});
  }
  return points;
}

/// Runs a stage over the week, and says what one point costs.
template <typename Stage>
void measure(benchmark::State& state, const std::vector<PowerTrendPoint>& points, Stage stage) {
  for (auto _ : state) benchmark::DoNotOptimize(stage(points));
  state.counters["per point"] =
      benchmark::Counter(static_cast<double>(points.size() * static_cast<std::size_t>(state.iterations())),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void boundCopyOfPoints(benchmark::State& state) {
  measure(state, weekOfPoints(), [](const auto& points) { return std::vector(points); });
}
BENCHMARK(boundCopyOfPoints)->Unit(benchmark::kMicrosecond);

/// At most 40 ns a point.
void smoothingChain(benchmark::State& state) {
  measure(state, weekOfPoints(), [](const auto& points) { return GraphBuildEngine::smoothedTrend(points); });
}
BENCHMARK(smoothingChain)->Unit(benchmark::kMicrosecond);

void powerDownsampling(benchmark::State& state) {
  measure(state, weekOfPoints(),
          [](const auto& points) { return GraphBuildEngine::downsample(points, graphMaxPoints); });
}
BENCHMARK(powerDownsampling)->Unit(benchmark::kMicrosecond);

void energyTrendAndDownsampling(benchmark::State& state) {
  measure(state, weekOfPoints(), [](const auto& points) {
    return GraphBuildEngine::downsampleEnergyTrend(GraphBuildEngine::buildEnergyTrend(points),
                                                   graphMaxPoints);
  });
}
BENCHMARK(energyTrendAndDownsampling)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quenzel::benchmarks
