#include <algorithm>
#include <bit>
#include <sstream>

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
  // Each reading, after how many seconds, and what is known then.
  const std::tuple<Watts, double, Snapshot> rows[] = {
      {36, 10, {36, 36, 0.1, true}},
      {{}, 10, {36, 36, 0.1, false}},
      {-1, 0, {36, 36, 0.1, false}},
      {72, 10, {72, 60, 0.5, true}},   // 0.4 Wh more, as it holds for the 20 s since the last reading
      {72, -5, {72, 72, 0.5, true}}};  // a clock set back adds no energy
  for (const auto& [watts, seconds, snapshot] : rows) {
    source->total = watts;
    clock.advance(seconds);
    EXPECT_EQ(reader.sample(clock.now()), snapshot) << ::testing::PrintToString(watts);
  }
  StatsSystemTotalPowerReader small(source, clock.now());
  source->total = 0.5;
  clock.advance(0.5);
  EXPECT_DOUBLE_EQ(small.sample(clock.now()).averageW, 0.5) << "little power for little time counts too";
  for (const auto& [current, average, visible] :
       {std::tuple(0.005, 7.0, 7.0), {0.01, 7, 7}, {0.02, 7, 0.02}, {-3, -7, 0}})
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
  const testing::FakeShell shell;
  EXPECT_EQ(DisplayPowerEstimator(power, &shell).shell(), &shell);
  EXPECT_EQ(USBPowerEstimator(&power, &shell).shell(), &shell);
  EXPECT_EQ(BatteryDrainEstimator::estimateTotalDischargeW({}), 2.4);
  EXPECT_DOUBLE_EQ(BatteryDrainEstimator::estimateTotalDischargeW({100, 50}), 35.4);
  for (const auto& [cpu, watts] : {std::pair(-50.0, 2.4), {100, 24.4}, {1000, 65.0}})
    EXPECT_DOUBLE_EQ(BatteryDrainEstimator::estimateTotalDischargeW({cpu, -100}), watts) << cpu;
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
  const std::pair<double, SystemCPUSample> rows[] = {
      {0, {0, 1, 0}},
      {2, {0.5, 1, 2}},  // 30 + 10 + 10 of 100, nice having wrapped
      {3, {0, 1, 0}},    // a failed read changes nothing
      {1, {0, 1, 4}},    // no tick passed
      {-9, {1, 1, 0}}};  // the clock was set back
  for (const auto& [seconds, sample] : rows) {
    clock.advance(seconds);
    EXPECT_EQ(reader.sample(clock.now()), sample) << seconds;
  }
}

}  // namespace
}  // namespace quenzel
