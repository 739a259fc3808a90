#include "QuenzelMonitor/Inspect/GraphStages.hpp"

#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "SharedModels/DetailsDataPipeline/WindowedProcessSummary.hpp"
#include "SharedModels/GraphBuildEngine/BatteryLevelTrend.hpp"
#include "SharedModels/GraphBuildEngine/PowerTrendSmoothing.hpp"
#include "SharedModels/GraphBuildEngine/TrendDownsampling.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"
#include "SharedModels/Snapshot/SnapshotQuality.hpp"

namespace quenzel {
namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;
namespace Engine = GraphBuildEngine;

// Records that only these stages read, and never write.

struct SummaryInput {
  std::vector<DrainSnapshot> sourceRaw;
  DrainSnapshot fallbackSnapshot;
  double windowSeconds = 0;
};
constexpr auto summaryInputFields =
    std::tuple{jsonField("sourceRaw", &SummaryInput::sourceRaw, decodeDrainSnapshot, nullptr),
               jsonField("fallbackSnapshot", &SummaryInput::fallbackSnapshot, decodeDrainSnapshot, nullptr),
               jsonField("windowSeconds", &SummaryInput::windowSeconds)};

struct PowerTrendInput {
  std::vector<PowerTrendPoint> points;
  std::int64_t maxPoints = 0;
};

struct BatteryTrendInput {
  std::vector<DrainSnapshot> snapshots;
  std::int64_t graphMaxPoints = 0;
};
constexpr auto batteryTrendInputFields =
    std::tuple{jsonField("snapshots", &BatteryTrendInput::snapshots, decodeDrainSnapshot, nullptr),
               jsonField("graphMaxPoints", &BatteryTrendInput::graphMaxPoints)};

constexpr auto batteryPointFields =
    std::tuple{jsonField("id", &BatteryLevelPoint::id, decodeJSON<TrendPointID>,
                         [](TrendPointID id) { return OrderedJson(fmt::to_string(id)); }),
               jsonField("timestamp", &BatteryLevelPoint::timestamp),
               jsonField("levelPercent", &BatteryLevelPoint::levelPercent)};

/// Captured points are named by any text: each text gets a number, equal ones the same.
class CapturedPoints {
  template <typename Point>
  auto idField(TrendPointID Point::*member) {
    const auto decode = [this](const Json& json, const JSONPath& path) {
      const auto [entry, isNew] = numbers_.try_emplace(decodeJSON<std::string>(json, path), names_.size());
      if (isNew) names_.push_back(entry->first);
      return static_cast<TrendPointID>(entry->second);
    };
    const auto encode = [this](TrendPointID id) { return OrderedJson(names_[static_cast<std::size_t>(id)]); };
    return jsonField("id", member, decode, encode);
  }
  auto powerPointFields() {
    return std::tuple{idField(&PowerTrendPoint::id),
                      jsonField("timestamp", &PowerTrendPoint::timestamp),
                      jsonField("totalW", &PowerTrendPoint::totalW),
                      jsonField("processW", &PowerTrendPoint::processW),
                      jsonField("componentW", &PowerTrendPoint::componentW),
                      jsonField("unattributedW", &PowerTrendPoint::unattributedW),
                      jsonField("onBatteryPower", &PowerTrendPoint::onBatteryPower)};
  }

 public:
  PowerTrendInput decode(const Json& json) {
    const auto decodePoint = [this](const Json& point, const JSONPath& path) {
      return decodeJSONRecord<PowerTrendPoint>(point, path, powerPointFields());
    };
    return decodeJSONRecord<PowerTrendInput>(
        json, {},
        std::tuple{jsonField("points", &PowerTrendInput::points, decodePoint, nullptr),
                   jsonField("maxPoints", &PowerTrendInput::maxPoints)});
  }
  OrderedJson encode(const std::vector<PowerTrendPoint>& points) {
    return encodeJSONList(
        points, [this](const PowerTrendPoint& point) { return encodeJSONRecord(point, powerPointFields()); });
  }
  OrderedJson encode(const std::vector<EnergyTrendPoint>& points) {
    return encodeJSONList(points, [this](const EnergyTrendPoint& point) {
      return encodeJSONRecord(point, std::tuple{idField(&EnergyTrendPoint::id),
                                                jsonField("timestamp", &EnergyTrendPoint::timestamp),
                                                jsonField("totalWh", &EnergyTrendPoint::totalWh),
                                                jsonField("batteryWh", &EnergyTrendPoint::batteryWh)});
    });
  }

 private:
  std::unordered_map<std::string, std::size_t> numbers_;
  std::vector<std::string> names_;
};

OrderedJson encodeGroup(const ProcessGroup& group) {
  return {{"id", group.id},
          {"canonicalName", group.canonicalName},
          {"totalDrainW", group.totalDrainW},
          {"totalEnergyWh", group.totalEnergyWh},
          {"processes",
           encodeJSONList(group.processes, [](const ProcessDrain& process) { return process.id(); })}};
}

}  // namespace

OrderedJson inspectSummary(std::string_view input) {
  const auto captured = decodeJSONRecord<SummaryInput>(parseJSON(input), {}, summaryInputFields);
  const auto windowed = WindowedProcessSummaryBuilder::windowedSnapshots(
      captured.sourceRaw, captured.fallbackSnapshot, captured.windowSeconds);
  const WindowedProcessSummary summary = WindowedProcessSummaryBuilder::summarize(
      captured.sourceRaw, captured.fallbackSnapshot, captured.windowSeconds);
  const std::map<std::string, double> sorted(summary.groupedWhByName.begin(), summary.groupedWhByName.end());
  return {
      {"windowed",
       encodeJSONList(windowed, [](const auto& snapshot) { return encodeJSONValue(snapshot.timestamp); })},
      {"totalWh", summary.totalWh},
      {"groupedWhByName", OrderedJson(sorted)},
      {"processGroups", encodeJSONList(summary.processGroups, encodeGroup)},
      {"rangeSnapshot", encodeJSONValue(summary.rangeSnapshot.timestamp)}};
}

OrderedJson inspectPowerTrend(std::string_view input) {
  CapturedPoints captured;
  const auto [points, maxPoints] = captured.decode(parseJSON(input));
  const auto clamped = Engine::clampRateOfChange(points);
  const auto dipFilled = Engine::replaceTransientDips(clamped);
  const auto medianFiltered = Engine::medianFilter(dipFilled, Engine::chainWindow);
  const auto smoothed = Engine::exponentialSmooth(medianFiltered, Engine::chainAlpha);
  const auto energyTrend = Engine::buildEnergyTrend(smoothed);
  return {{"clamped", captured.encode(clamped)},
          {"dipFilled", captured.encode(dipFilled)},
          {"medianFiltered", captured.encode(medianFiltered)},
          {"smoothed", captured.encode(smoothed)},
          {"downsampled", captured.encode(Engine::downsample(smoothed, maxPoints))},
          {"energyTrend", captured.encode(energyTrend)},
          {"energyDownsampled", captured.encode(Engine::downsampleEnergyTrend(energyTrend, maxPoints))}};
}

OrderedJson inspectBatteryTrend(std::string_view input) {
  const auto captured = decodeJSONRecord<BatteryTrendInput>(parseJSON(input), {}, batteryTrendInputFields);
  const std::vector<PreparedSnapshot> prepared = Engine::preparedSnapshots(captured.snapshots);
  const auto trend = Engine::buildBatteryLevelTrend(prepared, captured.graphMaxPoints);
  OrderedJson json = {{"batteryLevelTrend", encodeJSONList(trend, [](const BatteryLevelPoint& point) {
                         return encodeJSONRecord(point, batteryPointFields);
                       })}};
  if (const auto rate = Engine::calculateDrainRate(prepared)) json["drainRatePerHour"] = *rate;
  return json;
}

OrderedJson inspectSnapshotQuality(std::string_view input) {
  const auto snapshots = decodeJSONList(parseJSON(input), {}, decodeDrainSnapshot);
  return encodeJSONList(snapshots, [](const DrainSnapshot& snapshot) { return snapshotQuality(snapshot); });
}

}  // namespace quenzel
