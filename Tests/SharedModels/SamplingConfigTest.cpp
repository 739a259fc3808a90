#include <array>
#include <limits>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "SharedModels/Snapshot/SamplingConfig.hpp"
#include "SharedModels/Snapshot/SnapshotCodec.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using SnapshotCodec::decodeConfig;

TEST(SamplingConfigTest, MissingKeysTakeTheirDefaults) {
  EXPECT_EQ(SnapshotCodec::encodeConfig(decodeConfig("{}")),
            R"({"minIntervalSec":5,"maxIntervalSec":30,"developerMode":false,"samplingMode":"background",)"
            R"("backgroundIntervalSec":20,"interactiveIntervalSec":8,"burstIntervalSec":8,)"
            R"("powermetricsIntervalSec":30,"hiddenRefreshIntervalSec":300,"usbRefreshIntervalSec":300,)"
            R"("isOnBatteryPower":true})");
  EXPECT_EQ(decodeConfig(R"({"burstIntervalSec":null,"samplingMode":null,"later":1})"), SamplingConfig());
  EXPECT_STREQ(thrownBy<JSONCodingError>([] { decodeConfig(R"({"samplingMode":"turbo"})"); }).what(),
               "samplingMode: \"turbo\" is none of the possible values");
}

TEST(SamplingConfigTest, RaisesWhatLiesBelowItsFloor) {
  // Intervals in seconds: least, most, background, interactive, burst, powermetrics, hidden, USB.
  using Intervals = std::array<std::int64_t, 8>;
  constexpr auto lowest = std::numeric_limits<std::int64_t>::min();
  const Intervals rows[][2] = {
      {{lowest, lowest, lowest, lowest, lowest, lowest, lowest, lowest}, {1, 1, 1, 1, 1, 1, 30, 30}},
      {{10, 4, 0, -1, 1, 0, 5, 29}, {10, 10, 1, 1, 1, 1, 30, 30}},
      {{2, 3, 4, 5, 6, 7, 31, 32}, {2, 3, 4, 5, 6, 7, 31, 32}}};
  const auto config = [](const Intervals& in) {
    return SamplingConfig(
        {in[0], in[1], true, SamplingMode::burst, in[2], in[3], in[4], in[5], in[6], in[7]});
  };
  for (const auto& [given, floored] : rows) {
    const SamplingSettings set = config(given).settings();
    EXPECT_EQ((Intervals{set.minIntervalSec, set.maxIntervalSec, set.backgroundIntervalSec,
                         set.interactiveIntervalSec, set.burstIntervalSec, set.powermetricsIntervalSec,
                         set.hiddenRefreshIntervalSec, set.usbRefreshIntervalSec}),
              floored);
    EXPECT_EQ(decodeConfig(SnapshotCodec::encodeConfig(config(given))), config(given));
  }
  EXPECT_EQ(decodeConfig(R"({"minIntervalSec":0,"usbRefreshIntervalSec":29})"),
            SamplingConfig({.minIntervalSec = 1, .usbRefreshIntervalSec = 30}));
}

TEST(SamplingConfigTest, TheModeChoosesTheIntervals) {
  std::string chosen;
  for (const std::int64_t powermetrics : {30, 4}) {
    for (const auto mode : {SamplingMode::background, SamplingMode::interactive, SamplingMode::burst}) {
      const SamplingConfig config({5, 30, false, mode, 21, 9, 3, powermetrics});
      chosen += fmt::format("{} s, {} s; ", config.activeIntervalSec(), config.powermetricsCacheTTLSeconds());
    }
  }
  EXPECT_EQ(chosen, "21 s, 30 s; 9 s, 10 s; 3 s, 10 s; 21 s, 4 s; 9 s, 4 s; 3 s, 4 s; ");
}

}  // namespace
}  // namespace quenzel
