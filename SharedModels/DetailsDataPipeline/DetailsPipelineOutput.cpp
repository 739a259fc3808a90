#include "SharedModels/DetailsDataPipeline/DetailsPipelineOutput.hpp"

#include <algorithm>
#include <limits>

#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

using OrderedJson = nlohmann::ordered_json;

OrderedJson encodePoint(const ChartPoint& point) {
  return {{"timestamp", encodeJSONValue(point.timestamp)}, {"value", point.value}};
}

OrderedJson encodeProcess(const GroupedProcessData& process) {
  OrderedJson json = {
      {"groupKey", process.groupKey}, {"canonicalName", process.canonicalName}, {"pid", process.pid}};
  if (process.representative) json["representative"] = encodeProcessDrain(*process.representative);
  json["energyWh"] = process.energyWh;
  json["averageW"] = process.averageW;
  json["latestW"] = process.latestW;
  return json;
}

OrderedJson encodeHidden(const GroupedHiddenData& hidden) {
  return {{"kind", rawValue(hidden.kind)},
          {"identifier", hidden.identifier},
          {"energyWh", hidden.energyWh},
          {"averageW", hidden.averageW},
          {"latestW", hidden.latestW}};
}

OrderedJson encodeSeries(const AppSeries& series) {
  return {{"groupKey", series.groupKey},
          {"canonicalName", series.canonicalName},
          {"energyWh", series.energyWh},
          {"watts", encodeJSONList(series.watts, encodePoint)}};
}

}  // namespace

float chartValue(double value) {
  constexpr double largest = std::numeric_limits<float>::max();
  return static_cast<float>(std::clamp(value, -largest, largest));
}

OrderedJson encodeDetailsWindowSummary(const DetailsWindowSummary& summary) {
  return {{"total_wh", summary.totalWh},
          {"battery_wh", summary.batteryWh},
          {"tracker_wh", summary.trackerWh},
          {"tracked_hours", summary.trackedHours},
          {"sample_hours", summary.sampleHours},
          {"process_wh", summary.processWh},
          {"screen_wh", summary.screenWh},
          {"usb_wh", summary.usbWh},
          {"cpu_wh", summary.cpuWh},
          {"gpu_wh", summary.gpuWh},
          {"ane_wh", summary.aneWh},
          {"ram_wh", summary.ramWh},
          {"pci_wh", summary.pciWh},
          {"unattributed_wh", summary.unattributedWh}};
}

OrderedJson encodeDetailsPipelineOutput(const DetailsPipelineOutput& output) {
  OrderedJson json = {{"windowStart", encodeJSONValue(output.windowStart)},
                      {"anchor", encodeJSONValue(output.anchor)},
                      {"snapshotCount", output.snapshotCount},
                      {"modelled", output.modelled},
                      {"summary", encodeDetailsWindowSummary(output.summary)},
                      {"averageComponents", encodeComponentDrain(output.averageComponents)}};
  if (output.batteryDrainRatePctPerHour)
    json["batteryDrainRatePctPerHour"] = *output.batteryDrainRatePctPerHour;
  json["processes"] = encodeJSONList(output.processes, encodeProcess);
  json["hidden"] = encodeJSONList(output.hidden, encodeHidden);
  json["appSeries"] = encodeJSONList(output.appSeries, encodeSeries);
  json["totalPowerW"] = encodeJSONList(output.totalPowerW, encodePoint);
  json["batteryLevelPercent"] = encodeJSONList(output.batteryLevelPercent, encodePoint);
  json["latestSnapshot"] = encodeDrainSnapshot(output.latestSnapshot);
  return json;
}

}  // namespace quenzel
