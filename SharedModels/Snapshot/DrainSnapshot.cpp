#include "SharedModels/Snapshot/DrainSnapshot.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

constexpr auto kTelemetryFields = std::tuple{
    jsonField("powermetricsCommandOK", &SourceTelemetry::powermetricsCommandOK),
    jsonField("powermetricsParsedProcessCount", &SourceTelemetry::powermetricsParsedProcessCount),
    jsonField("powermetricsHasPackagePower", &SourceTelemetry::powermetricsHasPackagePower),
    jsonField("powermetricsHasSystemPower", &SourceTelemetry::powermetricsHasSystemPower),
    jsonField("usedEstimatedTotalPower", &SourceTelemetry::usedEstimatedTotalPower),
    jsonField("screenModelAvailable", &SourceTelemetry::screenModelAvailable),
    jsonField("usbModelAvailable", &SourceTelemetry::usbModelAvailable),
};

constexpr auto kPowerContextFields = std::tuple{
    jsonField("onBatteryPower", &PowerUsageContext::onBatteryPower),
    jsonField("batteryLevelPercent", &PowerUsageContext::batteryLevelPercent),
};

constexpr auto kProcessFields = std::tuple{
    jsonField("pid", &ProcessDrain::pid),
    jsonField("parentPID", &ProcessDrain::parentPID),
    jsonField("name", &ProcessDrain::name),
    jsonField("bundleID", &ProcessDrain::bundleID),
    jsonField("displayName", &ProcessDrain::displayName),
    jsonField("canonicalName", &ProcessDrain::canonicalName),
    jsonField("processGroupKey", &ProcessDrain::processGroupKey),
    jsonField("drainW", &ProcessDrain::drainW),
    jsonField("energyShare", &ProcessDrain::energyShare),
    jsonField("rawCPUPercent", &ProcessDrain::rawCPUPercent),
    jsonField("cpuCapacityFraction", &ProcessDrain::cpuCapacityFraction),
    jsonField("cpuAttributedW", &ProcessDrain::cpuAttributedW),
    jsonField("ramAttributedW", &ProcessDrain::ramAttributedW),
    jsonField("sourceFlags", &ProcessDrain::sourceFlags),
};

constexpr auto kHiddenFields = std::tuple{
    jsonField("kind", &HiddenDrain::kind, decodeHiddenDrainKind, encodeHiddenDrainKind),
    jsonField("identifier", &HiddenDrain::identifier),
    jsonField("drainW", &HiddenDrain::drainW),
};

constexpr auto kComponentFields = std::tuple{
    defaultedJSONField("screenW", &ComponentDrain::screenW),
    defaultedJSONField("usbW", &ComponentDrain::usbW),
    defaultedJSONField("cpuW", &ComponentDrain::cpuW),
    defaultedJSONField("gpuW", &ComponentDrain::gpuW),
    defaultedJSONField("aneW", &ComponentDrain::aneW),
    defaultedJSONField("dramW", &ComponentDrain::dramW),
    defaultedJSONField("memoryFabricW", &ComponentDrain::memoryFabricW),
    defaultedJSONField("ramW", &ComponentDrain::ramW),
    defaultedJSONField("pciW", &ComponentDrain::pciW),
    jsonField("confidence", &ComponentDrain::confidence),
};

constexpr auto kSnapshotFields = std::tuple{
    jsonField("timestamp", &DrainSnapshot::timestamp),
    jsonField("totalDischargeW", &DrainSnapshot::totalDischargeW),
    jsonField("processes", &DrainSnapshot::processes, decodeProcessDrain, encodeProcessDrain),
    jsonField("hidden", &DrainSnapshot::hidden, decodeHiddenDrain, encodeHiddenDrain),
    jsonField("components", &DrainSnapshot::components, decodeComponentDrain, encodeComponentDrain),
    jsonField("unattributedW", &DrainSnapshot::unattributedW),
    jsonField("telemetry", &DrainSnapshot::telemetry, decodeSourceTelemetry, encodeSourceTelemetry),
    jsonField("powerContext", &DrainSnapshot::powerContext, decodePowerUsageContext, encodePowerUsageContext),
    jsonField("batteryStatus", &DrainSnapshot::batteryStatus, decodeBatteryStatusSample,
              encodeBatteryStatusSample),
};

}  // namespace

std::string ProcessDrain::id() const { return fmt::format("{}-{}", pid, name); }

bool ProcessDrain::hasPowermetricsSourceFlag() const {
  return std::any_of(sourceFlags.begin(), sourceFlags.end(),
                     [](const std::string& flag) { return flag.starts_with("powermetrics"); });
}

std::string HiddenDrain::id() const { return fmt::format("{}-{}", rawValue(kind), identifier); }

SourceTelemetry decodeSourceTelemetry(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<SourceTelemetry>(json, path, kTelemetryFields);
}

nlohmann::ordered_json encodeSourceTelemetry(const SourceTelemetry& telemetry) {
  return encodeJSONRecord(telemetry, kTelemetryFields);
}

PowerUsageContext decodePowerUsageContext(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<PowerUsageContext>(json, path, kPowerContextFields);
}

nlohmann::ordered_json encodePowerUsageContext(const PowerUsageContext& context) {
  return encodeJSONRecord(context, kPowerContextFields);
}

ProcessDrain decodeProcessDrain(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<ProcessDrain>(json, path, kProcessFields);
}

nlohmann::ordered_json encodeProcessDrain(const ProcessDrain& process) {
  return encodeJSONRecord(process, kProcessFields);
}

HiddenDrain decodeHiddenDrain(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<HiddenDrain>(json, path, kHiddenFields);
}

nlohmann::ordered_json encodeHiddenDrain(const HiddenDrain& hidden) {
  return encodeJSONRecord(hidden, kHiddenFields);
}

ComponentDrain decodeComponentDrain(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<ComponentDrain>(json, path, kComponentFields);
}

nlohmann::ordered_json encodeComponentDrain(const ComponentDrain& components) {
  return encodeJSONRecord(components, kComponentFields);
}

DrainSnapshot decodeDrainSnapshot(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<DrainSnapshot>(json, path, kSnapshotFields);
}

nlohmann::ordered_json encodeDrainSnapshot(const DrainSnapshot& snapshot) {
  return encodeJSONRecord(snapshot, kSnapshotFields);
}

}  // namespace quenzel
