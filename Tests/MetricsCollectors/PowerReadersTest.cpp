#include <bit>
#include <cstring>
#include <deque>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MetricsCollectors/PowerEstimators.hpp"
#include "MetricsCollectors/SMCReader.hpp"
#include "MetricsCollectors/StatsSystemTotalPowerReader.hpp"
#include "MetricsCollectors/SystemCPULoadReader.hpp"
#include "Tests/Support/FakeClock.hpp"

namespace quenzel {
namespace {

using testing::FakeClock;
using Watts = std::optional<double>;

TEST(SMCValue, DecodesEveryType) {
  struct Row {
    std::string_view type;
    std::array<std::uint8_t, 4> bytes;
    Watts value;
  };
  const Row rows[] = {
      {"flt ", {0x00, 0x00, 0x20, 0x41}, 10.0},
      {"ui8 ", {0xFE, 1, 1, 1}, 254.0},
      {"ui8", {7, 1, 1, 1}, 7.0},
      {"ui16", {0x34, 0x12, 9, 9}, 4660.0},
      {"ui32", {0xFF, 0xFF, 0xFF, 0xFF}, 4294967295.0},
      {"sp78", {0x1A, 0x80, 9, 9}, 26.5},
      {"sp78", {0xFF, 0xC0, 9, 9}, -0.25},
      {"fpe2", {0x00, 0x0A, 9, 9}, 2.5},
      {"fp88", {0x80, 0x80, 9, 9}, 128.5},
      // With 0x8000 an unsigned type of n fraction bits holds 2^(15-n), a signed one -2^(15-n).
      {"fp1f", {0x80, 0, 0, 0}, 1.0},
      {"fp2e", {0x80, 0, 0, 0}, 2.0},
      {"fp3d", {0x80, 0, 0, 0}, 4.0},
      {"fp4c", {0x80, 0, 0, 0}, 8.0},
      {"fp5b", {0x80, 0, 0, 0}, 16.0},
      {"fp6a", {0x80, 0, 0, 0}, 32.0},
      {"fp79", {0x80, 0, 0, 0}, 64.0},
      {"fpa6", {0x80, 0, 0, 0}, 512.0},
      {"fpc4", {0x80, 0, 0, 0}, 2048.0},
      {"sp1e", {0x80, 0, 0, 0}, -2.0},
      {"sp2d", {0x80, 0, 0, 0}, -4.0},
      {"sp3c", {0x80, 0, 0, 0}, -8.0},
      {"sp4b", {0x80, 0, 0, 0}, -16.0},
      {"sp5a", {0x80, 0, 0, 0}, -32.0},
      {"sp69", {0x80, 0, 0, 0}, -64.0},
      {"sp87", {0x80, 0, 0, 0}, -256.0},
      {"sp96", {0x80, 0, 0, 0}, -512.0},
      {"spa5", {0x80, 0, 0, 0}, -1024.0},
      {"spb4", {0x80, 0, 0, 0}, -2048.0},
      {"spf0", {0x80, 0, 0, 0}, -32768.0},
      {"ch8*", {1, 2, 3, 4}, std::nullopt},
      {"fp97", {1, 2, 3, 4}, std::nullopt},
      {"", {1, 2, 3, 4}, std::nullopt},
  };
  for (const Row& row : rows) EXPECT_EQ(decodeSMCValue(row.type, row.bytes), row.value) << row.type;
  EXPECT_EQ(packFourCharacterCode("PSTR"), 0x50535452U);
  EXPECT_EQ(packFourCharacterCode("PST"), 0U);
  EXPECT_EQ(unpackFourCharacterCode(0x666C7420), "flt ");
}

/// A controller whose keys are in a map; counts what it is asked.
class FakeController final : public platform::SMCUserClient {
 public:
  struct Key {
    std::string type;
    std::array<std::uint8_t, 4> bytes{};
  };
  struct State {
    std::map<std::string, Key> keys;
    bool opens = true;
    bool callsFail = false;
    int opened = 0;
    int closed = 0;
    int infoRequests = 0;
  };
  explicit FakeController(State& state) : state_(state) {}

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
      answer.keyInfo = {4, packFourCharacterCode(key->second.type), 0x80};
    } else if (asked.command == SMCExchangeRecord::readKeyBytes && asked.keyInfo.dataSize == 4) {
      std::copy(key->second.bytes.begin(), key->second.bytes.end(), answer.bytes.begin());
    } else {
      answer.result = 0x82;
    }
    reply = std::bit_cast<platform::SMCExchangeBytes>(answer);
    return !state_.callsFail;
  }

 private:
  State& state_;
};

TEST(SMCReader, ReadsKeysAndRemembersTheirTypes) {
  FakeController::State state;
  state.keys = {
      {"PDBR", {"flt ", {0, 0, 0x20, 0x41}}}, {"PU1R", {"sp78", {0x01, 0x80}}}, {"PU2R", {"ch8*", {}}}};
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
}

TEST(SMCReader, StaysSilentWithoutAController) {
  FakeController::State state;
  state.opens = false;
  state.keys = {{"PSTR", {"ui8 ", {9}}}};
  {
    SMCReader reader(std::make_unique<FakeController>(state));
    EXPECT_EQ(reader.readSystemTotalPowerWatts(), std::nullopt);
  }
  EXPECT_EQ(state.closed, 0);
}

struct FakePower final : SMCTotalPowerReading, SMCDisplayPowerReading, SMCUSBPowerReading {
  Watts total;
  Watts display;
  Watts left;
  Watts right;
  std::optional<double> readSystemTotalPowerWatts() override { return total; }
  std::optional<double> readDisplayPowerWatts() override { return display; }
  std::optional<double> readThunderboltLeftPowerWatts() override { return left; }
  std::optional<double> readThunderboltRightPowerWatts() override { return right; }
};

TEST(StatsSystemTotalPowerReader, KeepsAnEnergyAccount) {
  FakeClock clock;
  const auto source = std::make_shared<FakePower>();
  StatsSystemTotalPowerReader reader(source, clock.now());
  EXPECT_EQ(reader.sample(clock.now()), StatsSystemTotalSnapshot::empty());
  source->total = 36;
  clock.advance(10);
  EXPECT_EQ(reader.sample(clock.now()), (StatsSystemTotalSnapshot{36, 36, 0.1, true}));
  clock.advance(10);
  source->total = std::nullopt;
  EXPECT_EQ(reader.sample(clock.now()), (StatsSystemTotalSnapshot{36, 36, 0.1, false}));
  source->total = -1;
  EXPECT_FALSE(reader.sample(clock.now()).available);
  clock.advance(10);
  source->total = 72;  // holds for the 20 s since the last reading: 0.4 Wh more over 30 s in all
  EXPECT_EQ(reader.sample(clock.now()), (StatsSystemTotalSnapshot{72, 60, 0.5, true}));
  clock.advance(-5);  // a clock set back adds no energy
  EXPECT_EQ(reader.sample(clock.now()).totalConsumptionWh, 0.5);
}

TEST(StatsSystemTotalSnapshot, ShowsTheAverageWhereNothingIsDrawn) {
  EXPECT_EQ((StatsSystemTotalSnapshot{0.005, 7, 1, true}.preferredVisibleW()), 7.0);
  EXPECT_EQ((StatsSystemTotalSnapshot{0.01, 7, 1, true}.preferredVisibleW()), 7.0);
  EXPECT_EQ((StatsSystemTotalSnapshot{0.02, 7, 1, true}.preferredVisibleW()), 0.02);
  EXPECT_EQ((StatsSystemTotalSnapshot{-3, -7, 1, true}.preferredVisibleW()), 0.0);
}

TEST(PowerEstimators, CountWhatIsThereAndNotNegative) {
  struct Row {
    Watts left;
    Watts right;
    double usb;
  };
  const Row rows[] = {{{}, 7.5, 7.5}, {2.5, 1.0, 3.5}, {-2.0, 1.0, 1.0}, {{}, {}, 0.0}};
  FakePower power;
  for (const Row& row : rows) {
    power.left = row.left;
    power.right = row.right;
    EXPECT_EQ(USBPowerEstimator(&power).estimateWatts(), row.usb);
  }
  EXPECT_EQ(USBPowerEstimator(nullptr).estimateWatts(), 0.0);
  for (const auto& [reading, watts] : {std::pair<Watts, double>{{}, 0.0}, {-1.0, 0.0}, {3.25, 3.25}}) {
    power.display = reading;
    EXPECT_EQ(DisplayPowerEstimator(power).estimateWatts(), watts);
  }
  const std::pair<std::vector<double>, double> discharges[] = {
      {{}, 2.4}, {{-50}, 2.4}, {{100, 50}, 35.4}, {{1000}, 65.0}, {{100, -100}, 24.4}};
  for (const auto& [percentages, watts] : discharges) {
    EXPECT_DOUBLE_EQ(BatteryDrainEstimator::estimateTotalDischargeW(percentages), watts);
  }
}

class ScriptedTicks final : public platform::HostCPUTicks {
 public:
  explicit ScriptedTicks(std::deque<std::optional<platform::CPUTicks>> readings)
      : readings_(std::move(readings)) {}
  std::optional<platform::CPUTicks> read() override {
    const auto reading = readings_.front();
    readings_.pop_front();
    return reading;
  }

 private:
  std::deque<std::optional<platform::CPUTicks>> readings_;
};

TEST(SystemCPULoadReader, MeasuresBetweenSamples) {
  FakeClock clock;
  constexpr std::uint32_t highest = 0xFFFFFFFF;
  SystemCPULoadReader reader(
      0, std::make_unique<ScriptedTicks>(std::deque<std::optional<platform::CPUTicks>>{
             platform::CPUTicks{100, 200, 300, highest - 4}, platform::CPUTicks{130, 210, 350, 5},
             std::nullopt, platform::CPUTicks{130, 210, 350, 5}, platform::CPUTicks{130, 210, 351, 5}}));
  const auto sampleAfter = [&](double seconds) {
    clock.advance(seconds);
    return reader.sample(clock.now());
  };
  EXPECT_EQ(sampleAfter(0), (SystemCPUSample{0, 1, 0}));
  EXPECT_EQ(sampleAfter(2), (SystemCPUSample{0.5, 1, 2}));  // 30 + 10 + 10 of 100, nice having wrapped
  EXPECT_EQ(sampleAfter(3), (SystemCPUSample{0, 1, 0}));    // a failed read changes nothing
  EXPECT_EQ(sampleAfter(1), (SystemCPUSample{0, 1, 4}));    // no tick passed
  EXPECT_EQ(sampleAfter(-9), (SystemCPUSample{0, 1, 0}));   // the clock was set back
}

}  // namespace
}  // namespace quenzel
