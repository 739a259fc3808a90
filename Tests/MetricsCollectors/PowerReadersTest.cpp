#include <bit>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MetricsCollectors/PowerEstimators.hpp"
#include "MetricsCollectors/SMCReader.hpp"
#include "MetricsCollectors/StatsSystemTotalPowerReader.hpp"
#include "MetricsCollectors/SystemCPULoadReader.hpp"
#include "Tests/Support/FakeClock.hpp"
#include "Tests/Support/FakeShell.hpp"

namespace quenzel {
namespace {

using testing::FakeClock;
using ::testing::Return;
using Watts = std::optional<double>;

TEST(SMCValue, DecodesEveryType) {
  const std::tuple<std::string_view, std::array<std::uint8_t, 4>, Watts> rows[] = {
      {"flt ", {0, 0, 0x20, 0x41}, 10.0},
      {"ui8 ", {0xFE, 1, 1, 1}, 254.0},
      {"ui8", {7, 1, 1, 1}, 7.0},
      {"ui16", {0x34, 0x12, 9, 9}, 4660.0},
      {"ui32", {4, 3, 2, 0x81}, 0x81020304},
      {"sp78", {0x1A, 0x80, 9, 9}, 26.5},
      {"sp78", {0xFF, 0xC0, 9, 9}, -0.25},
      {"fpe2", {0, 10, 9, 9}, 2.5},
      {"fp88", {0x80, 0x80, 9, 9}, 128.5},
      {"ch8*", {1, 2, 3, 4}, {}},
      {"fp97", {1, 2, 3, 4}, {}},
      {"", {1, 2, 3, 4}, {}},
  };
  // With 0x8000 an unsigned type of n fraction bits holds 2^(15-n), a signed one -2^(15-n).
  const std::vector<std::pair<std::string, std::vector<std::string>>> signs = {
      {"fp", {"1f", "2e", "3d", "4c", "5b", "6a", "79", "88", "", "a6", "", "c4", "", "e2"}},
      {"sp", {"1e", "2d", "3c", "4b", "5a", "69", "78", "87", "96", "a5", "b4", "", "", "", "f0"}}};
  for (const auto& [sign, types] : signs) {
    double value = sign == "fp" ? 1 : -2;
    for (const std::string& type : types) {
      if (!type.empty()) {
        EXPECT_EQ(decodeSMCValue(sign + type, {0x80}), value) << sign + type;
      }
      value *= 2;
    }
  }
  for (const auto& [type, bytes, value] : rows) EXPECT_EQ(decodeSMCValue(type, bytes), value) << type;
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
  StatsSystemTotalPowerReader small(source, clock.now());
  source->total = 0.5;
  clock.advance(0.5);
  EXPECT_DOUBLE_EQ(small.sample(clock.now()).averageW, 0.5) << "little power for little time counts too";
}

TEST(StatsSystemTotalSnapshot, ShowsTheAverageWhereNothingIsDrawn) {
  for (const auto& [current, average, visible] :
       {std::tuple(0.005, 7.0, 7.0), {0.01, 7, 7}, {0.02, 7, 0.02}, {-3, -7, 0}}) {
    EXPECT_EQ((StatsSystemTotalSnapshot{current, average, 1, true}.preferredVisibleW()), visible);
  }
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
  const testing::FakeShell shell;
  EXPECT_EQ(DisplayPowerEstimator(power, &shell).shell(), &shell);
  EXPECT_EQ(USBPowerEstimator(&power, &shell).shell(), &shell);
  using Drain = BatteryDrainEstimator;
  EXPECT_EQ(Drain::estimateTotalDischargeW({}), 2.4);
  EXPECT_EQ(Drain::estimateTotalDischargeW({-50}), 2.4);
  EXPECT_DOUBLE_EQ(Drain::estimateTotalDischargeW({100, 50}), 35.4);
  EXPECT_DOUBLE_EQ(Drain::estimateTotalDischargeW({100, -100}), 24.4);
  EXPECT_EQ(Drain::estimateTotalDischargeW({1000}), 65.0);
}

struct FakeTicks final : platform::HostCPUTicks {
  MOCK_METHOD(std::optional<platform::CPUTicks>, read, (), (override));
};

TEST(SystemCPULoadReader, MeasuresBetweenSamples) {
  using platform::CPUTicks;
  constexpr std::uint32_t highest = 0xFFFFFFFF;
  auto ticks = std::make_unique<FakeTicks>();
  EXPECT_CALL(*ticks, read)
      .WillOnce(Return(CPUTicks{100, 200, 300, highest - 4}))
      .WillOnce(Return(CPUTicks{130, 210, 350, 5}))
      .WillOnce(Return(std::nullopt))
      .WillOnce(Return(CPUTicks{130, 210, 350, 5}))
      .WillOnce(Return(CPUTicks{131, 210, 350, 5}));
  SystemCPULoadReader reader(0, std::move(ticks));
  FakeClock clock;
  const auto sampleAfter = [&](double seconds) {
    clock.advance(seconds);
    return reader.sample(clock.now());
  };
  EXPECT_EQ(sampleAfter(0), (SystemCPUSample{0, 1, 0}));
  EXPECT_EQ(sampleAfter(2), (SystemCPUSample{0.5, 1, 2}));  // 30 + 10 + 10 of 100, nice having wrapped
  EXPECT_EQ(sampleAfter(3), (SystemCPUSample{0, 1, 0}));    // a failed read changes nothing
  EXPECT_EQ(sampleAfter(1), (SystemCPUSample{0, 1, 4}));    // no tick passed
  EXPECT_EQ(sampleAfter(-9), (SystemCPUSample{1, 1, 0}));   // the clock was set back
}

}  // namespace
}  // namespace quenzel
