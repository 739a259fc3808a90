#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MetricsCollectors/AppleSiliconPowerReader.hpp"

namespace quenzel {
namespace {

using Channels = std::vector<platform::EnergyModelChannel>;

TEST(EnergyTotals, AddsUpEachComponentByNameGroupAndUnit) {
  constexpr const char* model = "Energy Model";
  // Each channel that counts has a value of its own, so that one in a wrong place shows.
  // clang-format off
  const Channels channels = {
      {model, "DIE_0_CPU Energy", "mJ", 1000},   {model, "DIE_1_CPU Energy", "uJ", 2'000'000}, {model, "ANE CPU Energy", "mJ", 8000},
      {model, "GPU Energy", "nJ", 5'000'000'000}, {model, "ANE0_1", "mJ", 7000},                {model, "DRAM0", "mJ", 11'000},
      {model, "PCIe Port 2 Energy", "uJ", 13'000'000}, {model, "AMCC0", "mJ", 17'000},
      {model, "DISP", "mJ", 1}, {model, "PCIe Port 2", "mJ", 1}, {model, "apciec0 Energy", "mJ", 1}, {model, "ECPU0", "mJ", 1},
      {model, "GPU SRAM", "mJ", 1}, {model, "cpu energy", "mJ", 1}, {model, "CPU Energy", "J", 1}, {model, "CPU Energy", " mJ", 1},
      {model, std::nullopt, "mJ", 1}, {model, "CPU Energy", std::nullopt, 1}, {"energy model", "CPU Energy", "mJ", 1}};
  // clang-format on
  EXPECT_EQ(energyTotals(channels), (EnergyTotals{1 + 2 + 8, 5, 7, 11, 17, 13}));
}

struct FakeChannels final : platform::EnergyModelChannels {
  explicit FakeChannels(std::optional<Channels>& now) : now_(now) {}
  std::optional<Channels> sample() override { return now_; }
  std::optional<Channels>& now_;
};

struct RecordedLog final : platform::SystemLog {
  bool isEnabled(const std::string&, const std::string&, platform::SystemLogType) override { return true; }
  void write(const std::string& subsystem, const std::string& category, platform::SystemLogType type,
             const std::string& message) override {
    EXPECT_EQ(type, platform::SystemLogType::debug);
    lines.push_back(subsystem + " " + category + ": " + message);
  }
  std::vector<std::string> lines;
};

TEST(AppleSiliconPowerReader, DividesWhatEachComponentUsedByTheTime) {
  std::optional<Channels> now;
  RecordedLog log;
  AppleSiliconPowerReader reader(std::make_unique<FakeChannels>(now), log);
  const auto read = [&](std::int64_t cpu, std::int64_t fabric, std::int64_t dram) {
    now = Channels{{"Energy Model", "ECPU0 CPU Energy", "mJ", cpu},
                   {"Energy Model", "AMCC", "mJ", fabric},
                   {"Energy Model", "DRAM", "mJ", dram}};
  };
  const auto powers = [](double cpu, double fabric, double dram, double seconds) {
    return SystemPowerSnapshot{.cpuW = cpu,
                               .dramW = dram,
                               .memoryFabricW = fabric,
                               .ramW = fabric + dram,
                               .totalTrackedW = cpu + dram,
                               .intervalSeconds = seconds,
                               .supported = true};
  };
  EXPECT_EQ(reader.sample({9}), SystemPowerSnapshot{}) << "the counters can't be read";
  now = Channels{{"CPU Stats", "x", "mJ", 1}};
  EXPECT_EQ(reader.sample({9.5}), powers(0, 0, 0, 0));
  EXPECT_TRUE(log.lines.empty()) << "there is nothing to name yet";
  read(1000, 500, 100);
  EXPECT_EQ(reader.sample({10}), powers(2, 1, 0.2, 0.5));
  read(2500, 1500, 600);
  EXPECT_EQ(reader.sample({10.5}), powers(3, 2, 1, 0.5));
  read(9500, 9500, 9600);
  EXPECT_EQ(reader.sample({10.5}), powers(0, 0, 0, 0)) << "no time went by, and the totals are kept";
  now.reset();
  EXPECT_EQ(reader.sample({11.5}), SystemPowerSnapshot{}) << "and change nothing";
  read(500, 10'500, 13'600);
  EXPECT_EQ(reader.sample({12.5}), powers(0, 0.5, 2, 2)) << "one counter went back";
  EXPECT_EQ(reader.sample({3}), powers(0, 0, 0, 0)) << "the clock was set back";
  EXPECT_EQ(reader.sample({4}), powers(0, 0, 0, 1));
  EXPECT_THAT(log.lines,
              ::testing::ElementsAre("com.quenzel.runtime AppleSiliconPowerReader: IOReport Energy Model "
                                     "channels: ECPU0 CPU Energy, AMCC, DRAM"));
}

}  // namespace
}  // namespace quenzel
