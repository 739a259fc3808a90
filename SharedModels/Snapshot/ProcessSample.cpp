#include "SharedModels/Snapshot/ProcessSample.hpp"

#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

constexpr auto kFields = std::tuple{
    jsonField("pid", &ProcessSample::pid),
    jsonField("parentPID", &ProcessSample::parentPID),
    jsonField("responsiblePID", &ProcessSample::responsiblePID),
    jsonField("name", &ProcessSample::name),
    jsonField("bundleID", &ProcessSample::bundleID),
    jsonField("powermetricsPackageW", &ProcessSample::powermetricsPackageW),
    jsonField("powermetricsCPUW", &ProcessSample::powermetricsCPUW),
    jsonField("powermetricsGPUW", &ProcessSample::powermetricsGPUW),
    defaultedJSONField("powermetricsGPUFallbackAllocated", &ProcessSample::powermetricsGPUFallbackAllocated),
    defaultedJSONField("residentMemoryBytes", &ProcessSample::residentMemoryBytes),
    defaultedJSONField("cpuPercent", &ProcessSample::cpuPercent),
    defaultedJSONField("cpuTimeDeltaNs", &ProcessSample::cpuTimeDeltaNs),
    defaultedJSONField("samplingIntervalMs", &ProcessSample::samplingIntervalMs),
    defaultedJSONField("gpuTimeMs", &ProcessSample::gpuTimeMs),
    defaultedJSONField("diskReadBytes", &ProcessSample::diskReadBytes),
    defaultedJSONField("diskWriteBytes", &ProcessSample::diskWriteBytes),
    defaultedJSONField("networkSentBytes", &ProcessSample::networkSentBytes),
    defaultedJSONField("networkRecvBytes", &ProcessSample::networkRecvBytes),
};

}  // namespace

ProcessSample decodeProcessSample(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<ProcessSample>(json, path, kFields);
}

nlohmann::ordered_json encodeProcessSample(const ProcessSample& sample) {
  return encodeJSONRecord(sample, kFields);
}

}  // namespace quenzel
