#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "QuenzelMonitor/Attribution.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"

namespace quenzel {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN(),
                 kInfinity = std::numeric_limits<double>::infinity();
using Flags = std::vector<std::string>;

ProcessSample measured(std::int64_t pid, double watts, double cpuPercent = 0) {
  return {.pid = pid,
          .name = "p",
          .powermetricsPackageW = watts,
          .powermetricsCPUW = watts / 2,
          .cpuPercent = cpuPercent};
}
HiddenWorkloadMapping container(std::vector<HiddenWorkloadHostShare> shares) {
  return {HiddenDrainKind::dockerContainer, "web", std::move(shares)};
}
/// Display, USB, processes, hidden workloads, the rest.
std::vector<double> partsOf(const DrainSnapshot& snapshot) {
  std::vector<double> parts = {snapshot.components.screenW, snapshot.components.usbW};
  for (const ProcessDrain& row : snapshot.processes) parts.push_back(row.drainW);
  for (const HiddenDrain& row : snapshot.hidden) parts.push_back(row.drainW);
  parts.push_back(snapshot.unattributedW);
  return parts;
}

TEST(Attribution, ServesThePartsInTheirOrder) {
  const ProcessSample p50 = makeProcessSample(1, "p", 50), q100 = makeProcessSample(2, "q", 100),
                      r250 = makeProcessSample(3, "r", 250);
  const HiddenWorkloadMapping service{HiddenDrainKind::launchdService, "s", {{1, 1}, {1, 5}}};
  const struct Row {
    const char* what;
    AttributionInput input;
    std::vector<double> parts;
    Flags firstFlags;
  } rows[] = {
      // two processors
      {"all fits", {{}, 10, {measured(1, 3), measured(2, 1)}, {}, 2, 1}, {2, 1, 3, 1, 3}, {"powermetrics"}},
      {"models give way", {{}, 10, {measured(1, 6)}, {}, 6, 2}, {3, 1, 6, 0}, {"powermetrics"}},
      {"too much",
       {{}, 4, {measured(1, 6), measured(2, 2)}, {}, 1, 1},
       {0, 0, 3, 1, 0},
       {"powermetrics", "scaled-to-total"}},
      {"by CPU", {{}, 12, {p50, q100}, {}, 3, 1}, {3, 1, 2, 4, 2}, {"cpu-share"}},
      {"overbooked", {{}, 8, {p50, q100, r250}}, {0, 0, 1, 2, 5, 0}, {"cpu-share"}},
      {"not by CPU", {{}, 8, {measured(1, 1), q100}}, {0, 0, 1, 0, 7}, {"powermetrics"}},
      {"hidden",
       {{}, 8, {measured(1, 4), measured(2, 2)}, {container({{1, 0.25}, {2, 0.5}, {9, 1}})}},
       {0, 0, 3, 1, 2, 2},
       {"powermetrics", "hidden-workload-host"}},
      {"shares over 1",
       {{}, 8, {measured(1, 6)}, {container({{1, 1}}), service}},
       {0, 0, 0, 2, 4, 2},
       {"powermetrics", "hidden-workload-host"}},
      {"twice",
       {{}, 8, {measured(1, 4)}, {container({{1, 0.5}}), container({{1, kNaN}, {1, 0.25}})}},
       {0, 0, 1, 3, 4},
       {"powermetrics", "hidden-workload-host"}},
      {"listed twice", {{}, 8, {measured(1, 4), measured(1, 4)}}, {0, 0, 4, 4}, {"powermetrics"}},
      {"nonsense",
       {{}, 8, {measured(1, kInfinity), measured(2, kNaN), measured(3, -2, kNaN)}, {}, kNaN, -1},
       {0, 0, 0, 0, 0, 8},
       {}},
      {"no total", {{}, -3, {measured(1, 4)}, {}, 1, 1}, {0, 0, 0, 0}, {"powermetrics", "scaled-to-total"}},
  };
  for (const Row& row : rows) {
    const DrainSnapshot snapshot = attribute({row.input, {}, {}}, {.logicalCPUCount = 2});
    EXPECT_EQ(partsOf(snapshot), row.parts) << row.what;
    EXPECT_EQ(snapshot.processes[0].sourceFlags, row.firstFlags) << row.what;
  }
}

TEST(Attribution, SaysWhatTheFiguresAreMadeOf) {
  AttributionBuildResult build{{{}, 10, {measured(1, 4, 50), measured(2, 0.0009)}, {}, 1},
                               {},
                               BatteryStatusSample{.levelPercent = 80, .remainingWh = kNaN}};
  build.input.processes[0].powermetricsGPUFallbackAllocated = true;
  DrainSnapshot snapshot =
      attribute(build, {true,
                        4,
                        {.powerCounters = true},
                        {.cpuW = 3, .totalTrackedW = 4, .intervalSeconds = 1, .supported = true}});
  dropNegligibleRows(snapshot);
  ASSERT_EQ(snapshot.processes.size(), 1U);
  const ProcessDrain& row = snapshot.processes[0];
  EXPECT_EQ(row.sourceFlags, (Flags{"powermetrics", "powermetrics-gpu-estimated", "modelled"}));
  EXPECT_EQ(std::tuple(row.cpuAttributedW, row.cpuCapacityFraction, row.energyShare),
            std::tuple(2.0, 0.125, 0.8));
  EXPECT_EQ(std::tuple(snapshot.components.cpuW, snapshot.components.confidence, snapshot.unattributedW),
            std::tuple(3.0, 0.5, 5.0));
  EXPECT_EQ(std::tuple(snapshot.powerContext, snapshot.batteryStatus->remainingWh),
            std::tuple(PowerUsageContext{true, 80}, std::nullopt));
}

TEST(Attribution, ConservesTheTotalWhateverComesIn) {
  std::minstd_rand random(20260711);
  const auto upTo = [&](int most) { return std::uniform_int_distribution<int>(0, most)(random); };
  const auto any = [&] {
    const double odd[] = {kNaN, kInfinity, -kInfinity, -1, 0, 1e-320, 1e308};
    return upTo(3) == 0 ? odd[upTo(6)] : upTo(4000) / 100.0;
  };
  for (int round = 0; round < 2000; ++round) {
    AttributionBuildResult build{{{}, any(), {}, {}, any(), any()}, {}, {}};
    for (int count = upTo(5); count > 0; --count) {
      build.input.processes.push_back(round % 3 == 0 ? makeProcessSample(upTo(3), "p", any())
                                                     : measured(upTo(3), any(), any()));
      build.input.hiddenMappings.push_back(container({{upTo(3), any()}, {upTo(3), any() / 40}}));
    }
    DrainSnapshot snapshot = attribute(build, {.logicalCPUCount = upTo(2)});
    if (round % 2 == 0) dropNegligibleRows(snapshot);
    double left = snapshot.totalDischargeW, least = 0;
    for (const double part : partsOf(snapshot)) left -= part, least = std::min(least, part);
    ASSERT_TRUE(least == 0 && std::abs(left) <= 1e-9 * snapshot.totalDischargeW + 1e-300)
        << round << ": " << left << ", " << least;
  }
}

}  // namespace
}  // namespace quenzel
