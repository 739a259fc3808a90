#include <limits>

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
}

TEST(SamplingConfigTest, RaisesWhatLiesBelowItsFloor) {
  constexpr auto lowest = std::numeric_limits<std::int64_t>::min();
  const std::pair<SamplingSettings, SamplingSettings> rows[] = {
      {{.minIntervalSec = lowest, .maxIntervalSec = lowest}, {.minIntervalSec = 1, .maxIntervalSec = 1}},
      {{.minIntervalSec = 10, .maxIntervalSec = 4}, {.minIntervalSec = 10, .maxIntervalSec = 10}},
      {{.backgroundIntervalSec = 0, .interactiveIntervalSec = -1, .burstIntervalSec = 1},
       {.backgroundIntervalSec = 1, .interactiveIntervalSec = 1, .burstIntervalSec = 1}},
      {{.powermetricsIntervalSec = 0, .hiddenRefreshIntervalSec = 5, .usbRefreshIntervalSec = 29},
       {.powermetricsIntervalSec = 1, .hiddenRefreshIntervalSec = 30, .usbRefreshIntervalSec = 30}},
  };
  for (const auto& [given, floored] : rows) {
    const SamplingConfig config(given);
    EXPECT_EQ(config.settings(), floored);
    EXPECT_EQ(decodeConfig(SnapshotCodec::encodeConfig(config)), config);
  }
  EXPECT_EQ(decodeConfig(R"({"minIntervalSec":0,"usbRefreshIntervalSec":29})"),
            SamplingConfig({.minIntervalSec = 1, .usbRefreshIntervalSec = 30}));
}

TEST(SamplingConfigTest, TheModeChoosesTheIntervals) {
  using enum SamplingMode;
  const std::tuple<SamplingMode, std::int64_t, std::int64_t, std::int64_t> rows[] = {
      {background, 30, 21, 30}, {interactive, 30, 9, 10}, {burst, 30, 3, 10},
      {background, 4, 21, 4},   {interactive, 4, 9, 4},   {burst, 4, 3, 4}};
  for (const auto& [mode, powermetricsIntervalSec, activeIntervalSec, cacheTTLSeconds] : rows) {
    const SamplingConfig config({.samplingMode = mode,
                                 .backgroundIntervalSec = 21,
                                 .interactiveIntervalSec = 9,
                                 .burstIntervalSec = 3,
                                 .powermetricsIntervalSec = powermetricsIntervalSec});
    EXPECT_EQ(config.activeIntervalSec(), activeIntervalSec) << rawValue(mode);
    EXPECT_EQ(config.powermetricsCacheTTLSeconds(), cacheTTLSeconds) << rawValue(mode);
  }
}

TEST(SamplingConfigTest, AKeyOfTheWrongTypeFailsAndIsNamed) {
  const std::pair<std::string, std::string> rows[] = {
      {R"({"samplingMode":"turbo"})", "samplingMode: \"turbo\" is none of the possible values"},
      {R"({"minIntervalSec":"5"})", "minIntervalSec: expected an integer, found a string"},
      {R"({"burstIntervalSec":9223372036854775808})",
       "burstIntervalSec: the number 9223372036854775808 is out of range"},
      {R"({"isOnBatteryPower":1})", "isOnBatteryPower: expected a boolean, found a number"},
      {"[]", "JSON document: expected an object, found a list"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(thrownBy<JSONCodingError>([&] { decodeConfig(row.first); }).what(), row.second);
  }
}

}  // namespace
}  // namespace quenzel
