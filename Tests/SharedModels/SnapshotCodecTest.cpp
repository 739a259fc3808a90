#include <limits>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "SharedModels/Snapshot/SnapshotCodec.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

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
     "cpuAttributedW": 2.25, "ramAttributedW": 0.25, "sourceFlags": ["ram_model", "powermetrics_cpu"]},
    {"pid": 42, "name": "Mail", "drainW": 0.5, "energyShare": 0, "sourceFlags": []}],
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
    {"pid": 501, "parentPID": 1, "responsiblePID": 77,
     "name": "/Applications/Ma\u00efl.app/Contents/MacOS/Mail", "bundleID": "com.example.mail",
     "powermetricsPackageW": 1.5, "powermetricsCPUW": 1.25, "powermetricsGPUW": 0.25,
     "powermetricsGPUFallbackAllocated": true, "residentMemoryBytes": 18446744073709551615,
     "cpuPercent": 0.1, "cpuTimeDeltaNs": 9007199254740993, "samplingIntervalMs": 1000.5, "gpuTimeMs": 2,
     "diskReadBytes": 3, "diskWriteBytes": 4, "networkSentBytes": 5, "networkRecvBytes": 6}],
  "hiddenMappings": [{"kind": "launchd_service", "identifier": "com.example.job",
                      "hostShares": [{"pid": 9, "share": 0.5}]}],
  "screenModelW": 0, "usbModelW": 0.25, "developerMode": true})";

// ... and the same values as records, field by field in the same order.
// clang-format off
const ProcessSample kSample{501, 1, 77, "/Applications/Ma\u00efl.app/Contents/MacOS/Mail", "com.example.mail",
                            1.5, 1.25, 0.25, true, 18446744073709551615U, 0.1,
                            9007199254740993,  // 2^53 + 1: no double holds it
                            1000.5, 2, 3, 4, 5, 6};
const HiddenWorkloadMapping kMapping{HiddenDrainKind::launchdService, "com.example.job", {{9, 0.5}}};
const ProcessDrain kDrain{-1234567890, 1, "Mail", "com.example.mail", "Mail \u2014 Inbox", "mail", "app:mail",
                          2.5, 0.3, 12.5, 0.015625, 2.25, 0.25, {"ram_model", "powermetrics_cpu"}};
const BatteryStatusSample kBattery{81.5, 50, true, false, 240, 18, 17, 12500, -1500, 3012, 5103, 4900, 4000, 4950,
                                   1000, "F5D1234", "bq40z651", false, true, 96, "96W USB-C \"Power\" Adapter"};
const DrainSnapshot kRecord{{778123456.789}, 13.75, {kDrain, makeProcessDrain(42, "Mail", 0.5, {})},
                            {{HiddenDrainKind::cloudflaredTunnel, "edge", 0.125}},
                            {3, 0.75, 4, 1, 0.0625, 0.5, 0.375, 0.875, 0.1875, 0.9}, 1.375,
                            SourceTelemetry{true, 412, false, true, false, false, true},
                            PowerUsageContext{true, 81.25}, kBattery};
// clang-format on

TEST(SnapshotCodecTest, WritesEachFieldUnderItsNameInOrder) {
  EXPECT_EQ(encodeDrainSnapshot(kRecord), ordered_json::parse(kSnapshot));
  EXPECT_EQ(encodeAttributionInput({{0.5}, 8.5, {kSample}, {kMapping}, 0, 0.25, true}),
            ordered_json::parse(kInput));
}

/// What a document of a record reads and writes back as, or the error.
template <auto decode, auto encode>
json recode(const json& document) {
  return encode(decode(document, {}));
}

TEST(SnapshotCodecTest, EachKeyIsRequiredOrOptionalAndOfItsType) {
  const json snapshot = json::parse(kSnapshot), input = json::parse(kInput);
  const json& mapping = input["hiddenMappings"][0];
  // clang-format off
  const struct {
    json (*recode)(const json&);
    json complete;
    std::set<std::string> required;
  } records[] = {
      {recode<decodeProcessSample, encodeProcessSample>, input["processes"][0], {"pid", "name"}},
      {recode<decodeHiddenWorkloadMapping, encodeHiddenWorkloadMapping>, mapping, {"kind", "identifier", "hostShares"}},
      {recode<decodeHiddenWorkloadHostShare, encodeHiddenWorkloadHostShare>, mapping["hostShares"][0], {"pid", "share"}},
      {recode<decodeSourceTelemetry, encodeSourceTelemetry>, snapshot["telemetry"],
       {"powermetricsCommandOK", "powermetricsParsedProcessCount", "powermetricsHasPackagePower",
        "powermetricsHasSystemPower", "usedEstimatedTotalPower", "screenModelAvailable", "usbModelAvailable"}},
      {recode<decodePowerUsageContext, encodePowerUsageContext>, snapshot["powerContext"], {"onBatteryPower"}},
      {recode<decodeBatteryStatusSample, encodeBatteryStatusSample>, snapshot["batteryStatus"],
       {"levelPercent", "isCharging", "externalPowerConnected"}},
      {recode<decodeProcessDrain, encodeProcessDrain>, snapshot["processes"][0],
       {"pid", "name", "drainW", "energyShare", "sourceFlags"}},
      {recode<decodeHiddenDrain, encodeHiddenDrain>, snapshot["hidden"][0], {"kind", "identifier", "drainW"}},
      {recode<decodeComponentDrain, encodeComponentDrain>, snapshot["components"], {}},
      {recode<decodeDrainSnapshot, encodeDrainSnapshot>, snapshot,
       {"timestamp", "totalDischargeW", "processes", "hidden", "components", "unattributedW"}}};
  // clang-format on
  for (const auto& record : records) {
    EXPECT_EQ(record.recode(record.complete), record.complete);
    for (const auto& [key, value] : record.complete.items()) {
      SCOPED_TRACE(record.complete.dump() + "." + key);
      json missing = record.complete, null = record.complete, wrong = record.complete;
      missing.erase(key);
      null[key] = nullptr;
      wrong[key] = value.is_object() ? json(true) : json::object();
      const auto error = thrownBy<JSONCodingError>([&] { record.recode(wrong); });
      EXPECT_EQ(error.kind(), Kind::wrongType);
      EXPECT_THAT(error.what(), testing::StartsWith(key + ": expected "));
      if (record.required.contains(key)) {
        EXPECT_EQ(thrownBy<JSONCodingError>([&] { record.recode(missing); }).what(), key + ": missing");
        EXPECT_EQ(thrownBy<JSONCodingError>([&] { record.recode(null); }).kind(), Kind::wrongType);
      } else {
        EXPECT_EQ(record.recode(null), record.recode(missing));
        EXPECT_NE(record.recode(missing), record.complete);
      }
    }
  }
}

TEST(SnapshotCodecTest, SnapshotsReadBackEqual) {
  DrainSnapshot extreme = kRecord;
  extreme.timestamp = {-0.1};
  extreme.totalDischargeW = std::numeric_limits<double>::denorm_min();
  extreme.processes[0].pid = std::numeric_limits<std::int64_t>::min();
  extreme.processes[0].name = std::string("a\0\"\\\n\u2028", 8);
  for (const DrainSnapshot& snapshot : {DrainSnapshot{}, extreme}) {
    EXPECT_EQ(SnapshotCodec::decodeSnapshot(SnapshotCodec::encodeSnapshot(snapshot)), snapshot);
  }
  EXPECT_EQ(decodeProcessSample(parseJSON(R"({"pid":7,"name":"a"})"), {}), makeProcessSample(7, "a"));
}

TEST(SnapshotCodecTest, FailuresNameTheRow) {
  json document = json::parse(kSnapshot);
  const auto failure = [&] {
    return thrownBy<JSONCodingError>([&] { SnapshotCodec::decodeSnapshot(document.dump()); });
  };
  document["processes"][1]["drainW"] = "2";
  EXPECT_STREQ(failure().what(), "processes[1].drainW: expected a number, found a string");
  document["processes"][0]["sourceFlags"][1] = 3;
  EXPECT_STREQ(failure().what(), "processes[0].sourceFlags[1]: expected a string, found a number");
}

TEST(DrainSnapshotTest, DerivedMembers) {
  EXPECT_EQ(makeProcessDrain(42, "Mail", 1).id(), "42-Mail");
  EXPECT_EQ((HiddenDrain{.kind = HiddenDrainKind::dockerContainer, .identifier = "web"}.id()),
            "docker_container-web");
  EXPECT_EQ((ComponentDrain{.screenW = 2, .usbW = 0.5, .cpuW = 7}.displayPlusUsbW()), 2.5);
  const SourceTelemetry telemetry{.powermetricsHasPackagePower = true};
  EXPECT_FALSE(telemetry.powermetricsAvailable());
  EXPECT_TRUE(telemetry.powermetricsAttributionAvailable());
  const std::pair<std::vector<std::string>, bool> rows[] = {
      {{}, false},
      {{"ram_model", "xpowermetrics", "Powermetrics", "power"}, false},
      {{"powermetrics_gpu", "x"}, true},
      {{"ram_model", "powermetrics"}, true}};
  for (const auto& [flags, expected] : rows) {
    EXPECT_EQ(makeProcessDrain(1, "a", 1, flags).hasPowermetricsSourceFlag(), expected);
  }
}

}  // namespace
}  // namespace quenzel
