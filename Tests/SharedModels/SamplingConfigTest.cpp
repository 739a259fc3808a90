#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "SharedModels/Snapshot/SamplingConfig.hpp"
#include "SharedModels/Snapshot/SnapshotCodec.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

constexpr auto kLowest = std::numeric_limits<std::int64_t>::min();

TEST(SamplingConfigTest, MissingKeysTakeTheirDefaults) {
  EXPECT_EQ(SnapshotCodec::encodeConfig(SnapshotCodec::decodeConfig("{}")),
            R"({"minIntervalSec":5,"maxIntervalSec":30,"developerMode":false,"samplingMode":"background",)"
            R"("backgroundIntervalSec":20,"interactiveIntervalSec":8,"burstIntervalSec":8,)"
            R"("powermetricsIntervalSec":30,"hiddenRefreshIntervalSec":300,"usbRefreshIntervalSec":300,)"
            R"("isOnBatteryPower":true})");
  EXPECT_EQ(SnapshotCodec::decodeConfig(R"({"burstIntervalSec":null,"samplingMode":null,"later":1})"),
            SamplingConfig());
}

TEST(SamplingConfigTest, RaisesWhatLiesBelowItsFloor) {
  const struct {
    SamplingSettings given;
    SamplingSettings floored;
  } rows[] = {
      {{.minIntervalSec = 0}, {.minIntervalSec = 1}},
      {{.minIntervalSec = kLowest, .maxIntervalSec = kLowest}, {.minIntervalSec = 1, .maxIntervalSec = 1}},
      {{.minIntervalSec = 10, .maxIntervalSec = 4}, {.minIntervalSec = 10, .maxIntervalSec = 10}},
      {{.backgroundIntervalSec = 0, .interactiveIntervalSec = -1, .burstIntervalSec = 1},
       {.backgroundIntervalSec = 1, .interactiveIntervalSec = 1, .burstIntervalSec = 1}},
      {{.powermetricsIntervalSec = 0, .hiddenRefreshIntervalSec = 5, .usbRefreshIntervalSec = 29},
       {.powermetricsIntervalSec = 1, .hiddenRefreshIntervalSec = 30, .usbRefreshIntervalSec = 30}},
  };
  for (const auto& row : rows) {
    const SamplingConfig config(row.given);
    EXPECT_EQ(config.settings(), row.floored);
    EXPECT_EQ(SnapshotCodec::decodeConfig(SnapshotCodec::encodeConfig(config)), config);
  }
  EXPECT_EQ(SnapshotCodec::decodeConfig(R"({"minIntervalSec":0,"usbRefreshIntervalSec":29})"),
            SamplingConfig({.minIntervalSec = 1, .usbRefreshIntervalSec = 30}));
}

TEST(SamplingConfigTest, TheModeChoosesTheIntervals) {
  using enum SamplingMode;
  const struct {
    SamplingMode mode;
    std::int64_t powermetricsIntervalSec, activeIntervalSec, cacheTTLSeconds;
  } rows[] = {{background, 30, 21, 30}, {interactive, 30, 9, 10}, {burst, 30, 3, 10},
              {background, 4, 21, 4},   {interactive, 4, 9, 4},   {burst, 4, 3, 4}};
  for (const auto& row : rows) {
    const SamplingConfig config({.samplingMode = row.mode,
                                 .backgroundIntervalSec = 21,
                                 .interactiveIntervalSec = 9,
                                 .burstIntervalSec = 3,
                                 .powermetricsIntervalSec = row.powermetricsIntervalSec});
    EXPECT_EQ(config.activeIntervalSec(), row.activeIntervalSec) << rawValue(row.mode);
    EXPECT_EQ(config.powermetricsCacheTTLSeconds(), row.cacheTTLSeconds) << rawValue(row.mode);
  }
}

TEST(SamplingConfigTest, AKeyOfTheWrongTypeFailsAndIsNamed) {
  const struct {
    const char* text;
    const char* description;
  } rows[] = {
      {R"({"samplingMode":"turbo"})", "samplingMode: \"turbo\" is none of the possible values"},
      {R"({"samplingMode":1})", "samplingMode: expected a string, found a number"},
      {R"({"minIntervalSec":"5"})", "minIntervalSec: expected an integer, found a string"},
      {R"({"burstIntervalSec":9223372036854775808})",
       "burstIntervalSec: the number 9223372036854775808 is out of range"},
      {R"({"isOnBatteryPower":1})", "isOnBatteryPower: expected a boolean, found a number"},
      {"[]", "JSON document: expected an object, found a list"},
  };
  for (const auto& row : rows) {
    EXPECT_STREQ(thrownBy<JSONCodingError>([&] { SnapshotCodec::decodeConfig(row.text); }).what(),
                 row.description);
  }
}

}  // namespace
}  // namespace quenzel
