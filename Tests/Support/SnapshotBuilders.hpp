#pragma once

#include <string>
#include <utility>
#include <vector>

#include "SharedModels/Snapshot/AttributionInput.hpp"
#include "SharedModels/Snapshot/DrainSnapshot.hpp"

// Records for tests: small ones to vary, and complete ones in which no two fields hold the same value, so
// that a field that is taken for another shows.

namespace quenzel {

inline ProcessSample makeProcessSample(std::int64_t pid, std::string name, double cpuPercent = 0) {
  return {.pid = pid, .name = std::move(name), .cpuPercent = cpuPercent};
}

inline ProcessDrain makeProcessDrain(std::int64_t pid, std::string name, double drainW,
                                     std::vector<std::string> sourceFlags = {"powermetrics_cpu"}) {
  return {.pid = pid, .name = std::move(name), .drainW = drainW, .sourceFlags = std::move(sourceFlags)};
}

inline DrainSnapshot makeSnapshot(double secondsSince1970, double totalDischargeW,
                                  std::vector<ProcessDrain> processes = {}) {
  return {.timestamp = PointInTime::fromSecondsSince1970(secondsSince1970),
          .totalDischargeW = totalDischargeW,
          .processes = std::move(processes)};
}

inline ProcessSample completeProcessSample() {
  return {.pid = 501,
          .parentPID = 1,
          .responsiblePID = 77,
          .name = "/Applications/Ma\u00efl.app/Contents/MacOS/Mail",
          .bundleID = "com.example.mail",
          .powermetricsPackageW = 1.5,
          .powermetricsCPUW = 1.25,
          .powermetricsGPUW = 0.25,
          .powermetricsGPUFallbackAllocated = true,
          .residentMemoryBytes = 18446744073709551615U,
          .cpuPercent = 0.1,
          .cpuTimeDeltaNs = 9007199254740993,  // 2^53 + 1: no double holds it
          .samplingIntervalMs = 1000.5,
          .gpuTimeMs = 2,
          .diskReadBytes = 3,
          .diskWriteBytes = 4,
          .networkSentBytes = 5,
          .networkRecvBytes = 6};
}

inline BatteryStatusSample completeBatteryStatus() {
  return {.levelPercent = 81.5,
          .remainingWh = 50,
          .isCharging = true,
          .externalPowerConnected = false,
          .systemTimeRemainingMinutes = 240,
          .dischargeWatts = 18,
          .cycleCount = 17,
          .voltageMV = 12500,
          .amperageMa = -1500,
          .temperatureCentiC = 3012,
          .designCapacityMah = 5103,
          .maxCapacityMah = 4900,
          .currentCapacityMah = 4000,
          .nominalChargeCapacityMah = 4950,
          .designCycleCount = 1000,
          .serialNumber = "F5D1234",
          .deviceName = "bq40z651",
          .fullyCharged = false,
          .isACPowered = true,
          .adapterWatts = 96,
          .adapterName = "96W USB-C \"Power\" Adapter"};
}

inline ProcessDrain completeProcessDrain() {
  return {.pid = -1234567890,
          .parentPID = 1,
          .name = "Mail",
          .bundleID = "com.example.mail",
          .displayName = "Mail \u2014 Inbox",
          .canonicalName = "mail",
          .processGroupKey = "app:mail",
          .drainW = 2.5,
          .energyShare = 0.3,
          .rawCPUPercent = 12.5,
          .cpuCapacityFraction = 0.015625,
          .cpuAttributedW = 2.25,
          .ramAttributedW = 0.25,
          .sourceFlags = {"ram_model", "powermetrics_cpu"}};
}

inline DrainSnapshot completeSnapshot() {
  return {.timestamp = {778123456.789},
          .totalDischargeW = 13.75,
          .processes = {completeProcessDrain(), makeProcessDrain(42, "Mail", 0.5, {})},
          .hidden = {{.kind = HiddenDrainKind::cloudflaredTunnel, .identifier = "edge", .drainW = 0.125}},
          .components = {.screenW = 3,
                         .usbW = 0.75,
                         .cpuW = 4,
                         .gpuW = 1,
                         .aneW = 0.0625,
                         .dramW = 0.5,
                         .memoryFabricW = 0.375,
                         .ramW = 0.875,
                         .pciW = 0.1875,
                         .confidence = 0.9},
          .unattributedW = 1.375,
          .telemetry = SourceTelemetry{.powermetricsCommandOK = true,
                                       .powermetricsParsedProcessCount = 412,
                                       .powermetricsHasSystemPower = true,
                                       .usbModelAvailable = true},
          .powerContext = PowerUsageContext{.onBatteryPower = true, .batteryLevelPercent = 81.25},
          .batteryStatus = completeBatteryStatus()};
}

}  // namespace quenzel
