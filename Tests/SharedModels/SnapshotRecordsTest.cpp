#include <cmath>
#include <limits>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "SharedModels/Snapshot/SamplingConfig.hpp"
#include "SharedModels/Snapshot/SnapshotCodec.hpp"
#include "SharedModels/Snapshot/SnapshotPublicationPolicy.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using enum SnapshotPublicationDecision;
using SnapshotCodec::decodeConfig;
using Kind = JSONCodingError::Kind;
using nlohmann::json;
using nlohmann::ordered_json;

// A snapshot and an input with all their keys in order, no two of a type alike, ...
constexpr auto kSnapshot = R"({
  "timestamp": 778123456.789, "totalDischargeW": 13.75,
  "processes": [
    {"pid": -1234567890, "parentPID": 1, "name": "Mail", "bundleID": "com.example.mail",
     "displayName": "Mail \u2014 Inbox", "canonicalName": "mail", "processGroupKey": "app:mail",
     "drainW": 2.5, "energyShare": 0.3, "rawCPUPercent": 12.5, "cpuCapacityFraction": 0.015625,
     "cpuAttributedW": 2.25, "ramAttributedW": 0.25, "sourceFlags": ["ram_model", "powermetrics_cpu"]}],
  "hidden": [{"kind": "cloudflared_tunnel", "identifier": "edge", "drainW": 0.125}],
  "components": {"screenW": 3, "usbW": 0.75, "cpuW": 4, "gpuW": 1, "aneW": 0.0625, "dramW": 0.5,
                 "memoryFabricW": 0.375, "ramW": 0.875, "pciW": 0.1875, "confidence": 0.9},
  "unattributedW": 1.375,
  "telemetry": {"powermetricsCommandOK": true, "powermetricsParsedProcessCount": 412,
                "powermetricsHasPackagePower": false, "powermetricsHasSystemPower": true,
                "usedEstimatedTotalPower": false, "screenModelAvailable": false, "usbModelAvailable": true},
  "powerContext": {"onBatteryPower": true, "batteryLevelPercent": 81.25},
  "batteryStatus": {
    "levelPercent": 81.5, "remainingWh": 50, "isCharging": true, "externalPowerConnected": false,
    "systemTimeRemainingMinutes": 240, "dischargeWatts": 18, "cycleCount": 17, "voltageMV": 12500,
    "amperageMa": -1500, "temperatureCentiC": 3012, "designCapacityMah": 5103, "maxCapacityMah": 4900,
    "currentCapacityMah": 4000, "nominalChargeCapacityMah": 4950, "designCycleCount": 1000,
    "serialNumber": "F5D1234", "deviceName": "bq40z651", "fullyCharged": false, "isACPowered": true,
    "adapterWatts": 96, "adapterName": "96W USB-C \"Power\" Adapter"}})";
constexpr auto kInput = R"({
  "timestamp": 0.5, "totalDischargeW": 8.5,
  "processes": [
    {"pid": 501, "parentPID": 1, "responsiblePID": 77, "name": "/Ma\u00efl.app/Mail", "bundleID": "com.mail",
     "powermetricsPackageW": 1.5, "powermetricsCPUW": 1.25, "powermetricsGPUW": 0.25,
     "powermetricsGPUFallbackAllocated": true, "residentMemoryBytes": 18446744073709551615,
     "cpuPercent": 0.1, "cpuTimeDeltaNs": 9007199254740993, "samplingIntervalMs": 1000.5, "gpuTimeMs": 2,
     "diskReadBytes": 3, "diskWriteBytes": 4, "networkSentBytes": 5, "networkRecvBytes": 6}],
  "hiddenMappings": [{"kind": "launchd_service", "identifier": "com.example.job",
                      "hostShares": [{"pid": 9, "share": 0.5}]}],
  "screenModelW": 0, "usbModelW": 0.25, "developerMode": true})";

/// A record of these fields, in their order.
template <typename Record, typename... Fields>
Record make(Fields... fields) {
  return Record{std::move(fields)...};
}

// ... and the same values as records, field by field in the same order; no double holds 2^53 + 1.
const auto kSample =
    make<ProcessSample>(501, 1, 77, "/Ma\u00efl.app/Mail", "com.mail", 1.5, 1.25, 0.25, true,
                        18446744073709551615U, 0.1, 9007199254740993U, 1000.5, 2.0, 3.0, 4.0, 5.0, 6.0);
const auto kDrain = make<ProcessDrain>(-1234567890, 1, "Mail", "com.example.mail", "Mail \u2014 Inbox",
                                       "mail", "app:mail", 2.5, 0.3, 12.5, 0.015625, 2.25, 0.25,
                                       std::vector<std::string>{"ram_model", "powermetrics_cpu"});
const auto kBattery =
    make<BatteryStatusSample>(81.5, 50, true, false, 240, 18, 17, 12500, -1500, 3012, 5103, 4900, 4000, 4950,
                              1000, "F5D1234", "bq40z651", false, true, 96, "96W USB-C \"Power\" Adapter");
const auto kRecord = make<DrainSnapshot>(
    PointInTime{778123456.789}, 13.75, std::vector{kDrain},
    std::vector<HiddenDrain>{{HiddenDrainKind::cloudflaredTunnel, "edge", 0.125}},
    ComponentDrain{3, 0.75, 4, 1, 0.0625, 0.5, 0.375, 0.875, 0.1875, 0.9}, 1.375,
    SourceTelemetry{true, 412, false, true, false, false, true}, PowerUsageContext{true, 81.25}, kBattery);

TEST(SnapshotCodecTest, WritesEachFieldUnderItsNameInOrder) {
  EXPECT_EQ(encodeDrainSnapshot(kRecord), ordered_json::parse(kSnapshot));
  EXPECT_EQ(encodeAttributionInput({{0.5},
                                    8.5,
                                    {kSample},
                                    {{HiddenDrainKind::launchdService, "com.example.job", {{9, 0.5}}}},
                                    0,
                                    0.25,
                                    true}),
            ordered_json::parse(kInput));
}

/// Whether each key of a complete record may be left out, and be null, unless it is required.
template <auto decode, auto encode>
void checkKeys(const json& complete, const std::string& required) {
  const auto recode = [](const json& document) -> json { return encode(decode(document, {})); };
  EXPECT_EQ(recode(complete), complete);
  for (const auto& [key, value] : complete.items()) {
    SCOPED_TRACE(complete.dump() + "." + key);
    json missing = complete, null = complete;
    missing.erase(key);
    null[key] = nullptr;
    if ((" " + required + " ").find(" " + key + " ") != std::string::npos) {
      EXPECT_EQ(thrownBy<JSONCodingError>([&] { recode(missing); }).what(), key + ": missing");
      EXPECT_EQ(thrownBy<JSONCodingError>([&] { recode(null); }).kind(), Kind::wrongType);
    } else {
      EXPECT_EQ(recode(null), recode(missing));
      EXPECT_NE(recode(missing), complete);
    }
  }
}

TEST(SnapshotCodecTest, EachKeyIsRequiredOrOptionalAndOfItsType) {
  const json snapshot = json::parse(kSnapshot), input = json::parse(kInput);
  const json &mapping = input["hiddenMappings"][0], &telemetry = snapshot["telemetry"];
  std::string all;
  for (const auto& [key, value] : telemetry.items()) all += key + " ";
  checkKeys<decodeSourceTelemetry, encodeSourceTelemetry>(telemetry, all);
  checkKeys<decodeProcessSample, encodeProcessSample>(input["processes"][0], "pid name");
  checkKeys<decodeHiddenWorkloadMapping, encodeHiddenWorkloadMapping>(mapping, "kind identifier hostShares");
  checkKeys<decodeHiddenWorkloadHostShare, encodeHiddenWorkloadHostShare>(mapping["hostShares"][0],
                                                                          "pid share");
  checkKeys<decodePowerUsageContext, encodePowerUsageContext>(snapshot["powerContext"], "onBatteryPower");
  checkKeys<decodeBatteryStatusSample, encodeBatteryStatusSample>(
      snapshot["batteryStatus"], "levelPercent isCharging externalPowerConnected");
  checkKeys<decodeProcessDrain, encodeProcessDrain>(snapshot["processes"][0],
                                                    "pid name drainW energyShare sourceFlags");
  checkKeys<decodeHiddenDrain, encodeHiddenDrain>(snapshot["hidden"][0], "kind identifier drainW");
  checkKeys<decodeComponentDrain, encodeComponentDrain>(snapshot["components"], "");
  checkKeys<decodeDrainSnapshot, encodeDrainSnapshot>(
      snapshot, "timestamp totalDischargeW processes hidden components unattributedW");
}

TEST(SnapshotCodecTest, SnapshotsReadBackEqualAndFailuresNameTheRow) {
  for (const DrainSnapshot& snapshot : {DrainSnapshot{}, kRecord})
    EXPECT_EQ(SnapshotCodec::decodeSnapshot(SnapshotCodec::encodeSnapshot(snapshot)), snapshot);
  EXPECT_EQ(decodeProcessSample(parseJSON(R"({"pid":7,"name":"a"})"), {}), makeProcessSample(7, "a"));
  json document = json::parse(kSnapshot);
  document["processes"][0]["sourceFlags"][1] = 3;
  EXPECT_STREQ(thrownBy<JSONCodingError>([&] { SnapshotCodec::decodeSnapshot(document.dump()); }).what(),
               "processes[0].sourceFlags[1]: expected a string, found a number");
}

TEST(DrainSnapshotTest, DerivedMembers) {
  EXPECT_EQ(makeProcessDrain(42, "Mail", 1).id(), "42-Mail");
  EXPECT_EQ((HiddenDrain{.kind = HiddenDrainKind::dockerContainer, .identifier = "web"}.id()),
            "docker_container-web");
  EXPECT_EQ((ComponentDrain{.screenW = 2, .usbW = 0.5, .cpuW = 7}.displayPlusUsbW()), 2.5);
  const SourceTelemetry telemetry{.powermetricsHasPackagePower = true};
  EXPECT_FALSE(telemetry.powermetricsAvailable());
  EXPECT_TRUE(telemetry.powermetricsAttributionAvailable());
  const auto flagged = [](std::vector<std::string> flags) {
    return makeProcessDrain(1, "a", 1, std::move(flags)).hasPowermetricsSourceFlag();
  };
  EXPECT_FALSE(flagged({}) || flagged({"ram_model", "xpowermetrics", "Powermetrics", "power"}));
  EXPECT_TRUE(flagged({"powermetrics_gpu", "x"}) && flagged({"ram_model", "powermetrics"}));
}

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
  constexpr auto low = std::numeric_limits<std::int64_t>::min();
  constexpr auto burst = SamplingMode::burst;
  const SamplingSettings rows[][2] = {
      {{low, low, true, burst, low, low, low, low, low, low, true},
       {1, 1, true, burst, 1, 1, 1, 1, 30, 30, true}},
      {{10, 4, false, burst, 4, 5, 6, 7, 31, 32, false}, {10, 10, false, burst, 4, 5, 6, 7, 31, 32, false}}};
  for (const auto& [given, floored] : rows) {
    EXPECT_EQ(SamplingConfig(given).settings(), floored);
    EXPECT_EQ(decodeConfig(SnapshotCodec::encodeConfig(SamplingConfig(given))).settings(), floored);
  }
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

TEST(SnapshotPublicationPolicyTest, LooksAtTheTotalAlone) {
  const auto decision = [](double totalW) {
    return SnapshotPublicationPolicy::decision(makeSnapshot(0, totalW));
  };
  for (const double low : {0.1, -5.0}) EXPECT_EQ(decision(low), insufficientTotalPower) << low;
  for (const double enough : {0.1000001, 20.0, std::nan("")}) EXPECT_EQ(decision(enough), publishable);
}

TEST(SnapshotPublicationPolicyTest, DecisionsHaveTheirCodesAndReasons) {
  const std::string code[] = {"publishable", "insufficientTotalPower", "missingAttributedProcesses",
                              "missingProcessDrain"};
  const std::string reason[] = {"", "total power was not high enough to publish",
                                "powermetrics reported attributed power but no processes were publishable",
                                "powermetrics reported attributed power but process drain summed to zero"};
  for (const auto decision :
       {publishable, insufficientTotalPower, missingAttributedProcesses, missingProcessDrain}) {
    const auto index = static_cast<std::size_t>(decision);
    EXPECT_EQ(rawValue(decision), code[index]);
    EXPECT_EQ(snapshotPublicationDecision(code[index]), decision);
    EXPECT_EQ(rejectionReason(decision).value_or(""), reason[index]);
    EXPECT_EQ(isPublishable(decision), decision == publishable);
  }
  EXPECT_EQ(snapshotPublicationDecision("Publishable"), std::nullopt);
}

}  // namespace
}  // namespace quenzel
