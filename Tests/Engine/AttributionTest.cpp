#include <limits>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "Engine/Attribution.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"

namespace quenzel {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN(),
                 kInfinity = std::numeric_limits<double>::infinity();

ProcessSample measured(std::int64_t pid, double watts, double cpuPercent = 0) {
  ProcessSample sample = makeProcessSample(pid, "p", cpuPercent);
  sample.powermetricsPackageW = watts;
  sample.powermetricsCPUW = watts / 2;
  return sample;
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

std::string flagsOf(const DrainSnapshot& snapshot) {
  return fmt::format("{}", fmt::join(snapshot.processes.at(0).sourceFlags, " "));
}

TEST(Attribution, ServesThePartsInTheirOrder) {
  const ProcessSample p50 = makeProcessSample(1, "p", 50), q100 = makeProcessSample(2, "q", 100),
                      r250 = makeProcessSample(3, "r", 250), unknown = makeProcessSample(4, "u", kNaN);
  const HiddenWorkloadMapping service{HiddenDrainKind::launchdService, "s", {{1, 1}, {1, 5}}};
  const ProcessSample p1 = measured(1, 1), p3 = measured(1, 3), p4 = measured(1, 4), p6 = measured(1, 6),
                      q1 = measured(2, 1), odd = measured(3, -2, kNaN);
  const auto hidden = container({{1, 0.25}, {2, 0.5}, {9, 1}}), half = container({{1, 0.5}}),
             all = container({{1, 1}}), quarter = container({{1, kNaN}, {1, 0.25}});
  const std::string flag = "powermetrics", host = "powermetrics hidden-workload-host",
                    scaled = "powermetrics scaled-to-total";
  using Parts = std::vector<double>;
  const std::tuple<const char*, AttributionInput, Parts, std::string> rows[] = {
      // on two processors
      {"all fits", {{}, 10, {p3, q1}, {}, 2, 1}, {2, 1, 3, 1, 3}, flag},
      {"models give way", {{}, 10, {p6}, {}, 6, 2}, {3, 1, 6, 0}, flag},
      {"too much", {{}, 3.5, {odd, p6, q1}, {}, 1, 1}, {0, 0, 0, 3, 0.5, 0}, ""},
      {"by CPU", {{}, 12, {p50, q100}, {}, 3, 1}, {3, 1, 2, 4, 2}, "cpu-share"},
      {"overbooked", {{}, 8, {p50, q100, r250, unknown}}, {0, 0, 1, 2, 5, 0, 0}, "cpu-share"},
      {"not by CPU", {{}, 8, {p1, q100}}, {0, 0, 1, 0, 7}, flag},
      {"hidden", {{}, 8, {p4, q1}, {hidden}}, {0, 0, 3, 0.5, 1.5, 3}, host},
      {"shares over 1", {{}, 8, {p6}, {all, service}}, {0, 0, 0, 2, 4, 2}, host},
      {"twice", {{}, 8, {p4}, {half, quarter}}, {0, 0, 1, 3, 4}, host},
      {"listed twice", {{}, 8, {p4, p4}}, {0, 0, 4, 4}, flag},
      {"nonsense",
       {{}, 8, {measured(1, kInfinity), measured(2, kNaN), odd}, {}, kNaN, -1},
       {0, 0, 0, 0, 0, 8},
       ""},
      {"no total", {{}, -3, {p4}, {half}, 1, 1}, {0, 0, 0, 0, 0}, scaled}};
  for (const auto& [what, input, parts, flags] : rows) {
    const DrainSnapshot snapshot = attribute({input, {}, {}}, {.logicalCPUCount = 2});
    EXPECT_EQ(partsOf(snapshot), parts) << what;
    EXPECT_EQ(flagsOf(snapshot), flags) << what;
  }
}

TEST(Attribution, SaysWhatTheFiguresAreMadeOf) {
  AttributionBuildResult build{
      {{}, 20, {measured(1, 5, 50), measured(2, 0.0009, 500)}, {}, 1, 2},
      {true, 2, true, true, false, true, true},
      BatteryStatusSample{.levelPercent = 80, .remainingWh = kNaN, .dischargeWatts = 9}};
  build.input.processes[0].powermetricsGPUFallbackAllocated = true;
  build.input.processes[1].powermetricsCPUW.reset();
  SystemPowerSnapshot chip{3, 0.5, 0.25, 0.125, 1, 1.125, 0.0625, 0, 7, 1, true};
  DrainSnapshot snapshot = attribute(build, {true, 4, {.powerCounters = true}, chip});
  EXPECT_EQ(snapshot.processes[1].cpuAttributedW, 0);
  EXPECT_EQ(snapshot.processes[1].cpuCapacityFraction, 1) << "no more than the machine has";
  dropNegligibleRows(snapshot);
  ASSERT_EQ(snapshot.processes.size(), 1U);
  const ProcessDrain row = snapshot.processes[0];
  EXPECT_EQ(flagsOf(snapshot), "powermetrics powermetrics-gpu-estimated modelled");
  EXPECT_EQ(std::tuple(row.cpuAttributedW, row.cpuCapacityFraction, row.energyShare, snapshot.unattributedW),
            std::tuple(2.5, 0.125, 0.625, 12.0));
  EXPECT_EQ(snapshot.components, (ComponentDrain{1, 2, 3, 0.5, 0.25, 0.125, 1, 1.125, 0.0625, 0.5}));
  EXPECT_EQ(snapshot.telemetry, (SourceTelemetry{true, 2, true, true, false, true, true}));
  EXPECT_EQ(std::tuple(snapshot.powerContext, snapshot.batteryStatus->remainingWh,
                       snapshot.batteryStatus->dischargeWatts),
            std::tuple(PowerUsageContext{true, 80}, std::nullopt, 9));
  snapshot.processes[0].drainW = leastRowW;
  dropNegligibleRows(snapshot);
  EXPECT_EQ(snapshot.processes.size(), 1U) << "as little as is kept";
  build.input.totalDischargeW = 0;
  EXPECT_EQ(attribute(build, {.componentPower = chip}).components.confidence, std::nullopt);
  build.input.totalDischargeW = 20;
  chip.intervalSeconds = 0;
  EXPECT_EQ(attribute(build, {.componentPower = chip}).components, (ComponentDrain{1, 2}));
  const std::tuple<bool, platform::ModelledHardware, const char*> totals[] = {
      {true, {true, false}, "cpu-share"},
      {true, {false, true}, "cpu-share modelled"},
      {false, {true, false}, "cpu-share modelled"}};
  build.input.processes = {makeProcessSample(1, "p", 50)};
  for (const auto& [addedUp, modelled, flags] : totals) {
    build.metadata.usedEstimatedTotalPower = addedUp;
    EXPECT_EQ(flagsOf(attribute(build, {.modelled = modelled})), flags);
  }
}

}  // namespace
}  // namespace quenzel
