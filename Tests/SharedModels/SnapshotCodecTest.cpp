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

/// What a document reads and writes back as, or the error.
using Recode = json (*)(const json&);

const HiddenWorkloadMapping kMapping{.kind = HiddenDrainKind::launchdService,
                                     .identifier = "com.example.job",
                                     .hostShares = {{.pid = 9, .share = 0.5}}};

/// Every record: a document with all its keys, and those of them that must be there.
const struct RecordCase {
  const char* name;
  Recode recode;
  json complete;
  std::set<std::string> required;
} kRecords[] = {
    {"ProcessSample",
     [](const json& document) -> json { return encodeProcessSample(decodeProcessSample(document, {})); },
     encodeProcessSample(completeProcessSample()),
     {"pid", "name"}},
    {"HiddenWorkloadMapping",
     [](const json& document) -> json {
       return encodeHiddenWorkloadMapping(decodeHiddenWorkloadMapping(document, {}));
     },
     encodeHiddenWorkloadMapping(kMapping),
     {"kind", "identifier", "hostShares"}},
    {"HiddenWorkloadHostShare",
     [](const json& document) -> json {
       return encodeHiddenWorkloadHostShare(decodeHiddenWorkloadHostShare(document, {}));
     },
     encodeHiddenWorkloadHostShare(kMapping.hostShares[0]),
     {"pid", "share"}},
    {"SourceTelemetry",
     [](const json& document) -> json { return encodeSourceTelemetry(decodeSourceTelemetry(document, {})); },
     encodeSourceTelemetry(*completeSnapshot().telemetry),
     {"powermetricsCommandOK", "powermetricsParsedProcessCount", "powermetricsHasPackagePower",
      "powermetricsHasSystemPower", "usedEstimatedTotalPower", "screenModelAvailable", "usbModelAvailable"}},
    {"PowerUsageContext",
     [](const json& document) -> json {
       return encodePowerUsageContext(decodePowerUsageContext(document, {}));
     },
     encodePowerUsageContext(*completeSnapshot().powerContext),
     {"onBatteryPower"}},
    {"BatteryStatusSample",
     [](const json& document) -> json {
       return encodeBatteryStatusSample(decodeBatteryStatusSample(document, {}));
     },
     encodeBatteryStatusSample(completeBatteryStatus()),
     {"levelPercent", "isCharging", "externalPowerConnected"}},
    {"ProcessDrain",
     [](const json& document) -> json { return encodeProcessDrain(decodeProcessDrain(document, {})); },
     encodeProcessDrain(completeProcessDrain()),
     {"pid", "name", "drainW", "energyShare", "sourceFlags"}},
    {"HiddenDrain",
     [](const json& document) -> json { return encodeHiddenDrain(decodeHiddenDrain(document, {})); },
     encodeHiddenDrain(completeSnapshot().hidden[0]),
     {"kind", "identifier", "drainW"}},
    {"ComponentDrain",
     [](const json& document) -> json { return encodeComponentDrain(decodeComponentDrain(document, {})); },
     encodeComponentDrain(completeSnapshot().components),
     {}},
    {"DrainSnapshot",
     [](const json& document) -> json { return encodeDrainSnapshot(decodeDrainSnapshot(document, {})); },
     encodeDrainSnapshot(completeSnapshot()),
     {"timestamp", "totalDischargeW", "processes", "hidden", "components", "unattributedW"}},
};

TEST(SnapshotCodecTest, EachKeyIsRequiredOrOptionalAndOfItsType) {
  for (const RecordCase& record : kRecords) {
    EXPECT_EQ(record.recode(record.complete), record.complete) << record.name;
    for (const auto& [key, value] : record.complete.items()) {
      SCOPED_TRACE(std::string(record.name) + "." + key);
      json missing = record.complete;
      missing.erase(key);
      json null = record.complete;
      null[key] = nullptr;
      json wrong = record.complete;
      wrong[key] = value.is_object() ? json(true) : json::object();

      const auto error = thrownBy<JSONCodingError>([&] { record.recode(wrong); });
      EXPECT_EQ(error.kind(), Kind::wrongType);
      EXPECT_THAT(error.what(), testing::StartsWith(key + ": expected "));
      if (record.required.contains(key)) {
        EXPECT_STREQ(thrownBy<JSONCodingError>([&] { record.recode(missing); }).what(),
                     (key + ": missing").c_str());
        EXPECT_EQ(thrownBy<JSONCodingError>([&] { record.recode(null); }).kind(), Kind::wrongType);
      } else {
        EXPECT_EQ(record.recode(null), record.recode(missing));
        EXPECT_NE(record.recode(missing), record.complete);
      }
    }
  }
}

TEST(SnapshotCodecTest, WritesTheFieldNamesInTheirOrder) {
  const auto keys = [](const nlohmann::ordered_json& object) {
    std::string joined;
    for (const auto& [key, value] : object.items()) joined += key + " ";
    return joined;
  };
  EXPECT_EQ(
      keys(encodeProcessSample(completeProcessSample())),
      "pid parentPID responsiblePID name bundleID powermetricsPackageW powermetricsCPUW powermetricsGPUW "
      "powermetricsGPUFallbackAllocated residentMemoryBytes cpuPercent cpuTimeDeltaNs samplingIntervalMs "
      "gpuTimeMs diskReadBytes diskWriteBytes networkSentBytes networkRecvBytes ");
  EXPECT_EQ(
      keys(encodeBatteryStatusSample(completeBatteryStatus())),
      "levelPercent remainingWh isCharging externalPowerConnected systemTimeRemainingMinutes dischargeWatts "
      "cycleCount voltageMV amperageMa temperatureCentiC designCapacityMah maxCapacityMah currentCapacityMah "
      "nominalChargeCapacityMah designCycleCount serialNumber deviceName fullyCharged isACPowered "
      "adapterWatts "
      "adapterName ");
  EXPECT_EQ(keys(encodeProcessDrain(completeProcessDrain())),
            "pid parentPID name bundleID displayName canonicalName processGroupKey drainW energyShare "
            "rawCPUPercent "
            "cpuCapacityFraction cpuAttributedW ramAttributedW sourceFlags ");
  EXPECT_EQ(keys(encodeComponentDrain(completeSnapshot().components)),
            "screenW usbW cpuW gpuW aneW dramW memoryFabricW ramW pciW confidence ");
  EXPECT_EQ(keys(encodeDrainSnapshot(completeSnapshot())),
            "timestamp totalDischargeW processes hidden components unattributedW telemetry powerContext "
            "batteryStatus ");
  EXPECT_EQ(
      encodeJSON(
          encodeAttributionInput({.timestamp = {0.5}, .totalDischargeW = 8.5, .hiddenMappings = {kMapping}})),
      R"({"timestamp":0.5,"totalDischargeW":8.5,"processes":[],"hiddenMappings":[{"kind":"launchd_service",)"
      R"("identifier":"com.example.job","hostShares":[{"pid":9,"share":0.5}]}],"screenModelW":0.0,)"
      R"("usbModelW":0.0,"developerMode":false})");
}

TEST(SnapshotCodecTest, SnapshotsReadBackEqual) {
  DrainSnapshot extreme = completeSnapshot();
  extreme.timestamp = {-0.1};
  extreme.totalDischargeW = std::numeric_limits<double>::denorm_min();
  extreme.processes[0].pid = std::numeric_limits<std::int64_t>::min();
  extreme.processes[0].parentPID = std::numeric_limits<std::int64_t>::max();
  extreme.processes[0].name = std::string("a\0\"\\\n\u2028", 8);
  for (const DrainSnapshot& snapshot : {DrainSnapshot{}, completeSnapshot(), extreme}) {
    EXPECT_EQ(SnapshotCodec::decodeSnapshot(SnapshotCodec::encodeSnapshot(snapshot)), snapshot);
  }
  EXPECT_EQ(decodeProcessSample(parseJSON(R"({"pid":7,"name":"a"})"), {}), makeProcessSample(7, "a"));
  EXPECT_EQ(decodeProcessSample(encodeProcessSample(completeProcessSample()), {}), completeProcessSample());
}

TEST(SnapshotCodecTest, FailuresNameTheRow) {
  json document = encodeDrainSnapshot(completeSnapshot());
  document["processes"][1]["drainW"] = "2";
  EXPECT_STREQ(thrownBy<JSONCodingError>([&] { SnapshotCodec::decodeSnapshot(document.dump()); }).what(),
               "processes[1].drainW: expected a number, found a string");
  document = encodeDrainSnapshot(completeSnapshot());
  document["processes"][0]["sourceFlags"][1] = 3;
  EXPECT_STREQ(thrownBy<JSONCodingError>([&] { SnapshotCodec::decodeSnapshot(document.dump()); }).what(),
               "processes[0].sourceFlags[1]: expected a string, found a number");

  DrainSnapshot snapshot = completeSnapshot();
  snapshot.processes[1].energyShare = std::numeric_limits<double>::quiet_NaN();
  EXPECT_STREQ(thrownBy<JSONCodingError>([&] { SnapshotCodec::encodeSnapshot(snapshot); }).what(),
               "processes[1].energyShare: a number that isn't finite has no JSON form");
}

TEST(DrainSnapshotTest, DerivedMembers) {
  EXPECT_EQ(makeProcessDrain(42, "Mail", 1).id(), "42-Mail");
  EXPECT_EQ((HiddenDrain{.kind = HiddenDrainKind::dockerContainer, .identifier = "web"}.id()),
            "docker_container-web");
  EXPECT_EQ((ComponentDrain{.screenW = 2, .usbW = 0.5, .cpuW = 7}.displayPlusUsbW()), 2.5);
  const SourceTelemetry telemetry{.powermetricsHasPackagePower = true};
  EXPECT_FALSE(telemetry.powermetricsAvailable());
  EXPECT_TRUE(telemetry.powermetricsAttributionAvailable());
  const struct {
    std::vector<std::string> flags;
    bool expected;
  } rows[] = {{{}, false},
              {{"ram_model", "xpowermetrics", "Powermetrics", "power"}, false},
              {{"ram_model", "powermetrics"}, true},
              {{"powermetrics_gpu", "x"}, true}};
  for (const auto& row : rows) {
    EXPECT_EQ(makeProcessDrain(1, "a", 1, row.flags).hasPowermetricsSourceFlag(), row.expected);
  }
}

}  // namespace
}  // namespace quenzel
