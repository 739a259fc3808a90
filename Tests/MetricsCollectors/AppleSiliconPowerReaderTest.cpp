#include <array>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MetricsCollectors/AppleSiliconPowerReader.hpp"

namespace quenzel {
namespace {

using Channels = std::vector<platform::EnergyModelChannel>;

TEST(EnergyTotals, AddsUpEachComponentByNameGroupAndUnit) {
  constexpr const char* model = "Energy Model";
  // Each channel that counts has a value of its own, so that one in a wrong place shows.
  const Channels channels = {{model, "DIE_0_CPU Energy", "mJ", 1000},
                             {model, "DIE_1_CPU Energy", "uJ", 2'000'000},
                             {model, "ANE CPU Energy", "mJ", 8000},
                             {model, "GPU Energy", "nJ", 5'000'000'000},
                             {model, "ANE0_1", "mJ", 7000},
                             {model, "DRAM0", "mJ", 11'000},
                             {model, "PCIe Port 2 Energy", "uJ", 13'000'000},
                             {model, "AMCC0", "mJ", 17'000},
                             {model, "CPU Energy", "J", 1},
                             {model, "CPU Energy", " mJ", 1},
                             {model, std::nullopt, "mJ", 1},
                             {model, "CPU Energy", std::nullopt, 1},
                             {"energy model", "CPU Energy", "mJ", 1}};
  EXPECT_EQ(energyTotals(channels), (EnergyTotals{1 + 2 + 8, 5, 7, 11, 17, 13}));
  for (const char* name :
       {"DISP", "PCIe Port 2", "apciec0 Energy", "ECPU0", "GPU SRAM", "cpu energy", "ISP0", ""})
    EXPECT_EQ(energyTotals({{model, name, "mJ", 1}}), EnergyTotals{}) << name;
}

TEST(EnergyCounters, StandStillWithoutAReading) {
  constexpr std::int64_t none = platform::EnergyModelChannel::noReading;
  // Readings of one counter, and what it has counted.
  const std::pair<std::vector<std::int64_t>, std::vector<std::int64_t>> rows[] = {
      {{7, 9, 3}, {7, 9, 3}},
      {{7, none, none, 12}, {7, 7, 7, 12}},
      {{none, none, 1000, none, 1004, 900}, {0, 0, 0, 0, 4, -100}},
      {{none, none + 1, 1}, {0, 0, none}},  // 2^63 apart
  };
  for (const auto& [readings, counted] : rows) {
    EnergyCounters counters;
    for (std::size_t i = 0; i < readings.size(); ++i) {
      Channels channels = {{"g", "n", "mJ", readings[i]}};
      counters.replaceMissingReadings(channels);
      EXPECT_EQ(channels[0].value, counted[i]) << i << " of " << ::testing::PrintToString(readings);
    }
  }
  // By group, name and order among equals, wherever in the list a counter stands.
  EnergyCounters counters;
  Channels first = {{"g", "a", "mJ", 1}, {"g", "a", "mJ", 2}, {"h", "a", "mJ", 3}, {"g", {}, "mJ", 4}};
  counters.replaceMissingReadings(first);
  Channels moved;
  for (const std::size_t from : {3U, 2U, 0U, 1U}) moved.push_back(first[from]);
  moved.insert(moved.begin() + 2, {"x", "a", "mJ", 0});
  const Channels expected = moved;
  for (auto& channel : moved) channel.value = none;
  counters.replaceMissingReadings(moved);
  EXPECT_EQ(moved, expected);
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
  // CPU, GPU, neural engine, DRAM, memory fabric, PCI: each with a difference of its own, so that one taken
  // for another or left out shows, in the sums too.
  const auto read = [&](const std::array<std::int64_t, 6>& millijoules) {
    constexpr const char* names[] = {"ECPU0 CPU Energy", "GPU Energy", "ANE0", "DRAM", "AMCC", "PCIe Energy"};
    now.emplace();
    for (std::size_t i = 0; i < 6; ++i) now->push_back({"Energy Model", names[i], "mJ", millijoules[i]});
  };
  const auto powers = [](const std::array<double, 6>& watts, double seconds) {
    const auto [cpu, gpu, ane, dram, fabric, pci] = watts;
    const double ram = fabric + dram, total = cpu + gpu + ane + dram + pci;
    return SystemPowerSnapshot{cpu, gpu, ane, dram, fabric, ram, pci, 0, total, seconds, true};
  };
  EXPECT_EQ(reader.sample({9}), SystemPowerSnapshot{}) << "the counters can't be read";
  now = Channels{{"CPU Stats", "x", "mJ", 1}};
  EXPECT_EQ(reader.sample({9.5}), powers({}, 0));
  EXPECT_TRUE(log.lines.empty()) << "there is nothing to name yet";
  constexpr std::int64_t none = platform::EnergyModelChannel::noReading;
  // When, what is counted by then, the powers, and over which time.
  const std::tuple<double, std::array<std::int64_t, 6>, std::array<double, 6>, double> rows[] = {
      {10, {500, 1000, 2000, 4000, 8000, 16'000}, {1, 2, 4, 8, 16, 32}, 0.5},
      {10.5, {16'500, 9000, 6000, 6000, 9000, 16'500}, {32, 16, 8, 4, 2, 1}, 0.5},
      {10.5, {20'000, 20'000, 20'000, 20'000, 20'000, 20'000}, {}, 0},  // no time went by: totals are kept
      {12.5, {500, 24'000, 20'500, 22'000, 21'000, 20'000}, {0, 2, 0.25, 1, 0.5, 0}, 2},  // one went back
      {3, {500, 24'000, 20'500, 22'000, 21'000, 20'000}, {}, 0},  // the clock was set back
      {4, {500, none, 20'500, 22'000, 21'000, 20'000}, {}, 1},    // without a reading it stands still
      {5, {500, 25'000, 20'500, 22'000, 21'000, 20'000}, {0, 1, 0, 0, 0, 0}, 1}};
  for (const auto& [time, millijoules, watts, seconds] : rows) {
    if (time > 11) {  // a failed reading changes nothing
      now.reset();
      EXPECT_EQ(reader.sample({time - 0.5}), SystemPowerSnapshot{});
    }
    read(millijoules);
    EXPECT_EQ(reader.sample({time}), powers(watts, seconds)) << time;
  }
  EXPECT_THAT(log.lines, ::testing::ElementsAre(
                             "com.quenzel.runtime AppleSiliconPowerReader: IOReport Energy Model "
                             "channels: ECPU0 CPU Energy, GPU Energy, ANE0, DRAM, AMCC, PCIe Energy"));
}

}  // namespace
}  // namespace quenzel
