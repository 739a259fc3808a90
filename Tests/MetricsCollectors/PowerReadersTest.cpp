#include <algorithm>
#include <array>
#include <bit>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "MetricsCollectors/AppleSiliconPowerReader.hpp"
#include "MetricsCollectors/PowerEstimators.hpp"
#include "MetricsCollectors/SMCReader.hpp"
#include "MetricsCollectors/StatsSystemTotalPowerReader.hpp"
#include "MetricsCollectors/SystemCPULoadReader.hpp"
#include "Tests/Support/FakeClock.hpp"

namespace quenzel {
namespace {

using namespace ::testing;
using testing::FakeClock;
using Watts = std::optional<double>;

TEST(SMCValue, DecodesEveryType) {
  // Each type ("_" for a blank), its bytes and its value, "-" for none. With 0x8000 an unsigned type of n
  // fraction bits holds 2^(15-n), a signed one -2^(15-n).
  std::istringstream rows(
      "flt_ 00002041 10 ui8_ FE010101 254 ui8 07010101 7 ui16 34120909 4660 ui32 04030281 2164392708 "
      "sp78 1A800909 26.5 sp78 FFC00909 -0.25 fpe2 000A0909 2.5 fp88 80800909 128.5 ch8* 01020304 - "
      "fp97 01020304 - ___ 01020304 - fp1f 80000000 1 fp2e 80000000 2 fp3d 80000000 4 fp4c 80000000 8 "
      "fp5b 80000000 16 fp6a 80000000 32 fp79 80000000 64 fp88 80000000 128 fpa6 80000000 512 "
      "fpc4 80000000 2048 fpe2 80000000 8192 sp1e 80000000 -2 sp2d 80000000 -4 sp3c 80000000 -8 "
      "sp4b 80000000 -16 sp5a 80000000 -32 sp69 80000000 -64 sp78 80000000 -128 sp87 80000000 -256 "
      "sp96 80000000 -512 spa5 80000000 -1024 spb4 80000000 -2048 spf0 80000000 -32768");
  std::string type, value;
  for (std::uint32_t bytes; rows >> type >> std::hex >> bytes >> std::dec >> value;) {
    std::replace(type.begin(), type.end(), '_', ' ');
    const auto byte = [bytes](int shift) { return static_cast<std::uint8_t>(bytes >> shift); };
    EXPECT_EQ(decodeSMCValue(type, {byte(24), byte(16), byte(8), byte(0)}),
              value == "-" ? std::nullopt : std::optional(std::stod(value)))
        << type;
  }
  EXPECT_EQ(decodeSMCValue("", {1, 2, 3, 4}), std::nullopt);
  EXPECT_EQ(packFourCharacterCode("PSTR"), 0x50535452U);
  EXPECT_EQ(packFourCharacterCode("PST"), 0U);
  EXPECT_EQ(unpackFourCharacterCode(0x666C7420), "flt ");
}

/// What a controller holds, its keys with the type and the bytes of each, and what it was asked.
struct ControllerState {
  std::map<std::string, std::pair<std::string, std::array<std::uint8_t, 4>>> keys;
  bool opens = true, callsFail = false;
  int opened = 0, closed = 0, infoRequests = 0;
};

class FakeController final : public platform::SMCUserClient {
 public:
  explicit FakeController(ControllerState& state) : state_(state) {}
  bool open() override {
    ++state_.opened;
    return state_.opens;
  }
  void close() override { ++state_.closed; }
  bool exchange(const platform::SMCExchangeBytes& request, platform::SMCExchangeBytes& reply) override {
    const auto asked = std::bit_cast<SMCExchangeRecord>(request);
    SMCExchangeRecord answer;
    const auto key = state_.keys.find(unpackFourCharacterCode(asked.key));
    if (key == state_.keys.end()) {
      answer.result = 0x84;
    } else if (asked.command == SMCExchangeRecord::readKeyInfo) {
      ++state_.infoRequests;
      answer.keyInfo = {4, packFourCharacterCode(key->second.first), 0x80};
    } else if (asked.command == SMCExchangeRecord::readKeyBytes && asked.keyInfo.dataSize == 4) {
      std::copy_n(key->second.second.begin(), 4, answer.bytes.begin());
    } else {
      answer.result = 0x82;
    }
    reply = std::bit_cast<platform::SMCExchangeBytes>(answer);
    return !state_.callsFail;
  }

 private:
  ControllerState& state_;
};

TEST(SMCReader, ReadsKeysAndRemembersTheirTypes) {
  ControllerState state{
      {{"PDBR", {"flt ", {0, 0, 0x20, 0x41}}}, {"PU1R", {"sp78", {1, 0x80}}}, {"PU2R", {"ch8*", {}}}}};
  {
    SMCReader reader(std::make_unique<FakeController>(state));
    reader.connect();
    EXPECT_EQ(state.opened, 1);
    EXPECT_EQ(reader.readDisplayPowerWatts(), 10.0);
    EXPECT_EQ(reader.readDisplayPowerWatts(), 10.0);
    EXPECT_EQ(state.infoRequests, 1);
    EXPECT_EQ(reader.readThunderboltLeftPowerWatts(), 1.5);
    EXPECT_EQ(reader.readThunderboltRightPowerWatts(), std::nullopt) << "no number";
    EXPECT_EQ(reader.readSystemTotalPowerWatts(), std::nullopt) << "no such key";
    state.keys["PSTR"] = {"ui8 ", {9}};
    EXPECT_EQ(reader.readSystemTotalPowerWatts(), 9.0) << "a missing key is asked for again";
    state.callsFail = true;
    EXPECT_EQ(reader.readDisplayPowerWatts(), std::nullopt);
  }
  EXPECT_EQ(state.closed, 1);
  ControllerState absent{{{"PSTR", {"ui8 ", {9}}}}, false};
  EXPECT_EQ(SMCReader(std::make_unique<FakeController>(absent)).readSystemTotalPowerWatts(), std::nullopt);
  EXPECT_EQ(absent.closed, 0);
}

struct FakePower final : SMCTotalPowerReading, SMCDisplayPowerReading, SMCUSBPowerReading {
  Watts total, display, left, right;
  Watts readSystemTotalPowerWatts() override { return total; }
  Watts readDisplayPowerWatts() override { return display; }
  Watts readThunderboltLeftPowerWatts() override { return left; }
  Watts readThunderboltRightPowerWatts() override { return right; }
};

TEST(StatsSystemTotalPowerReader, KeepsAnEnergyAccount) {
  using Snapshot = StatsSystemTotalSnapshot;
  FakeClock clock;
  const auto source = std::make_shared<FakePower>();
  StatsSystemTotalPowerReader reader(source, clock.now());
  EXPECT_EQ(reader.sample(clock.now()), Snapshot::empty());
  // Each reading, after how many seconds, and what is known then. A reading holds for the time since the one
  // before; a clock that is set back adds no energy.
  const std::tuple<Watts, double, Snapshot> rows[] = {
      {36, 0, {36, 0, 0, true}},     {72, 0.5, {72, 72, 0.01, true}}, {{}, 0.5, {72, 72, 0.01, false}},
      {0, 0, {72, 72, 0.01, false}}, {36, 0.5, {36, 48, 0.02, true}}, {36, -0.25, {36, 57.6, 0.02, true}}};
  for (const auto& [watts, seconds, snapshot] : rows) {
    source->total = watts;
    clock.advance(seconds);
    EXPECT_EQ(reader.sample(clock.now()), snapshot) << PrintToString(watts);
  }
  for (const auto& [current, average, visible] :
       {std::tuple(0.005, 7.0, 7.0), {0.01, 7, 7}, {0.011, 7, 0.011}, {-3, -7, 0}})
    EXPECT_EQ((Snapshot{current, average, 1, true}.preferredVisibleW()), visible) << current;
}

TEST(PowerEstimators, CountWhatIsThereAndNotNegative) {
  FakePower power;
  const std::tuple<Watts, Watts, double> ports[] = {
      {{}, 7.5, 7.5}, {2.5, 1.0, 3.5}, {-2.0, 1.0, 1.0}, {{}, {}, 0.0}};
  for (const auto& [left, right, usb] : ports) {
    power.left = left;
    power.right = right;
    EXPECT_EQ(USBPowerEstimator(&power).estimateWatts(), usb);
  }
  EXPECT_EQ(USBPowerEstimator(nullptr).estimateWatts(), 0.0);
  for (const auto& [reading, watts] : {std::pair<Watts, double>{{}, 0.0}, {-1.0, 0.0}, {3.25, 3.25}}) {
    power.display = reading;
    EXPECT_EQ(DisplayPowerEstimator(power).estimateWatts(), watts);
  }
  EXPECT_EQ(BatteryDrainEstimator::estimateTotalDischargeW({}), 2.4);
  EXPECT_DOUBLE_EQ(BatteryDrainEstimator::estimateTotalDischargeW({100, 50}), 35.4);
  for (const auto& [cpu, watts] : {std::pair(-50.0, 2.4), {100, 24.4}, {1000, 65.0}})
    EXPECT_DOUBLE_EQ(BatteryDrainEstimator::estimateTotalDischargeW({cpu, -100}), watts) << cpu;
}

struct FakeTicks : platform::HostCPUTicks {
  MOCK_METHOD(std::optional<platform::CPUTicks>, read, (), (override));
};

TEST(SystemCPULoadReader, MeasuresBetweenSamples) {
  using platform::CPUTicks;
  constexpr std::uint32_t highest = 0xFFFFFFFF;
  std::optional<CPUTicks> now;
  auto ticks = std::make_unique<NiceMock<FakeTicks>>();
  ON_CALL(*ticks, read).WillByDefault(ReturnPointee(&now));
  SystemCPULoadReader reader(0, std::move(ticks));
  FakeClock clock;
  const std::tuple<double, std::optional<CPUTicks>, SystemCPUSample> rows[] = {
      {0, CPUTicks{100, 200, 300, highest - 4}, {0, 1, 0}},
      {2, CPUTicks{130, 210, 350, 5}, {0.5, 1, 2}},  // 30 + 10 + 10 of 100, nice having wrapped
      {3, {}, {0, 1, 0}},                            // a failed read changes nothing
      {1, CPUTicks{130, 210, 350, 5}, {0, 1, 4}},    // no tick passed
      {-9, CPUTicks{131, 210, 350, 5}, {1, 1, 0}}};  // the clock was set back
  for (const auto& [seconds, reading, sample] : rows) {
    clock.advance(seconds);
    now = reading;
    EXPECT_EQ(reader.sample(clock.now()), sample) << seconds;
  }
}

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
      EXPECT_EQ(channels[0].value, counted[i]) << i << " of " << PrintToString(readings);
    }
  }
}

struct FakeChannels : platform::EnergyModelChannels {
  MOCK_METHOD(std::optional<Channels>, sample, (), (override));
};

struct FakeLog final : platform::SystemLog {
  using Text = const std::string&;
  MOCK_METHOD(bool, isEnabled, (Text, Text, platform::SystemLogType), (override));
  MOCK_METHOD(void, write, (Text, Text, platform::SystemLogType, Text), (override));
};

TEST(AppleSiliconPowerReader, DividesWhatEachComponentUsedByTheTime) {
  std::optional<Channels> now;
  FakeLog log;
  EXPECT_CALL(log, write("com.quenzel.runtime", "AppleSiliconPowerReader", platform::SystemLogType::debug,
                         "IOReport Energy Model channels: ECPU0 CPU Energy, GPU Energy, ANE0, DRAM, AMCC, "
                         "PCIe Energy"));
  auto source = std::make_unique<NiceMock<FakeChannels>>();
  ON_CALL(*source, sample).WillByDefault(ReturnPointee(&now));
  AppleSiliconPowerReader reader(std::move(source), log);
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
}

TEST(SystemPowerSnapshot, IsEncodedFieldByField) {
  EXPECT_EQ(encodeSystemPowerSnapshot({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, true}).dump(),
            R"({"cpuW":1.0,"gpuW":2.0,"aneW":3.0,"dramW":4.0,"memoryFabricW":5.0,"ramW":6.0,"pciW":7.0,)"
            R"("displayW":8.0,"totalTrackedW":9.0,"intervalSeconds":10.0,"supported":true})");
}

}  // namespace
}  // namespace quenzel
