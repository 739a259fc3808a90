#include "QuenzelMonitor/Inspect/InspectStages.hpp"

#include <array>
#include <limits>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Base/Text.hpp"
#include "MetricsCollectors/BatteryStatusCollector.hpp"
#include "MetricsCollectors/DefaultShellRunner.hpp"
#include "MetricsCollectors/DirectBatteryStatusReader.hpp"
#include "MetricsCollectors/LowPowerModeText.hpp"
#include "MetricsCollectors/PowerEstimators.hpp"
#include "MetricsCollectors/PowermetricsParser.hpp"
#include "MetricsCollectors/ProcessSampler.hpp"
#include "MetricsCollectors/SMCValue.hpp"
#include "MetricsCollectors/StatsSystemTotalPowerReader.hpp"
#include "MetricsCollectors/SystemCPULoadReader.hpp"
#include "QuenzelMonitor/Console.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"
#include "SharedModels/Snapshot/SnapshotCodec.hpp"
#include "SharedModels/Snapshot/SnapshotPublicationPolicy.hpp"

namespace quenzel {
namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

// Records that only these stages read.

struct LevelInputs {
  std::optional<std::int64_t> displayCurrentCapacity;
  std::optional<std::int64_t> displayMaxCapacity;
  std::optional<std::int64_t> rawCurrentCapacityMah;
  std::optional<std::int64_t> rawMaxCapacityMah;
  bool isCharged = false;
};
constexpr auto levelInputFields = std::tuple{
    jsonField("displayCurrentCapacity", &LevelInputs::displayCurrentCapacity),
    jsonField("displayMaxCapacity", &LevelInputs::displayMaxCapacity),
    jsonField("rawCurrentCapacityMah", &LevelInputs::rawCurrentCapacityMah),
    jsonField("rawMaxCapacityMah", &LevelInputs::rawMaxCapacityMah),
    jsonField("isCharged", &LevelInputs::isCharged),
};

/// Ticks of a failed read are null; the key itself must be there.
struct CPUReading {
  double now = 0;
  std::optional<platform::CPUTicks> ticks;
};

struct PowerReading {
  double now = 0;
  std::optional<double> watts;
};
constexpr auto powerReadingFields =
    std::tuple{jsonField("now", &PowerReading::now), jsonField("watts", &PowerReading::watts)};

const Json& member(const Json& object, const JSONPath& path, const char* key) {
  if (!object.is_object()) throw JSONCodingError::wrongType(path, "an object", object);
  const auto entry = object.find(key);
  if (entry == object.end()) throw JSONCodingError::missingKey(JSONPath(path, key));
  return *entry;
}

/// A number from 0 to the highest of its type.
template <typename Unsigned>
Unsigned decodeUnsigned(const Json& json, const JSONPath& path) {
  const auto value = decodeJSON<std::uint64_t>(json, path);
  if (value > std::numeric_limits<Unsigned>::max()) throw JSONCodingError::outOfRange(path, json);
  return static_cast<Unsigned>(value);
}

std::array<std::uint8_t, 4> decodeFourBytes(const Json& json, const JSONPath& path) {
  const auto bytes = decodeJSONList(json, path, decodeUnsigned<std::uint8_t>);
  if (bytes.size() != 4) throw JSONCodingError::wrongType(path, "a list of four bytes", json);
  return {bytes[0], bytes[1], bytes[2], bytes[3]};
}

CPUReading decodeCPUReading(const Json& json, const JSONPath& path) {
  CPUReading reading;
  reading.now = decodeJSON<double>(member(json, path, "now"), JSONPath(path, "now"));
  const JSONPath ticksPath(path, "ticks");
  const Json& ticks = member(json, path, "ticks");
  if (ticks.is_null()) return reading;
  const auto counters = decodeJSONList(ticks, ticksPath, decodeUnsigned<std::uint32_t>);
  if (counters.size() != 4) throw JSONCodingError::wrongType(ticksPath, "a list of four counters", ticks);
  reading.ticks = platform::CPUTicks{counters[0], counters[1], counters[2], counters[3]};
  return reading;
}

/// Gives out readings one after another.
template <typename Value>
struct Replay {
  std::vector<Value> readings;
  std::size_t next = 0;

  const Value& take() { return readings[next++]; }
};

class ReplayedTicks final : public platform::HostCPUTicks {
 public:
  explicit ReplayedTicks(std::vector<CPUReading> readings) : replay_{std::move(readings)} {}
  std::optional<platform::CPUTicks> read() override { return replay_.take().ticks; }

 private:
  Replay<CPUReading> replay_;
};

class ReplayedSystemPower final : public SMCTotalPowerReading {
 public:
  explicit ReplayedSystemPower(std::vector<PowerReading> readings) : replay_{std::move(readings)} {}
  std::optional<double> readSystemTotalPowerWatts() override { return replay_.take().watts; }

 private:
  Replay<PowerReading> replay_;
};

OrderedJson encodeRecord(const PowermetricsProcessRecord& record) {
  return {{"pid", record.pid},
          {"name", record.name},
          {"cpuMsPerSec", record.cpuMsPerSec},
          {"gpuMsPerSec", record.gpuMsPerSec},
          {"cpuPackageW", record.cpuPackageW},
          {"gpuPackageW", record.gpuPackageW},
          {"anePackageW", record.anePackageW},
          {"packageW", record.packageW}};
}

/// Finds nothing: what is inspected may come from another machine.
ProcessSampler::Surroundings noSurroundings(RunningProcessMetadataCache& cache) {
  return {[](std::int32_t) { return std::nullopt; }, cache, [](const std::string&) { return false; }, now,
          ComponentProfiler::shared()};
}

/// The sampler takes impossible lists for a broken system and aborts; a capture deserves an answer.
void requirePossibleProcesses(std::string_view psOutput, bool unique) {
  std::unordered_set<std::int64_t> seen;
  for (const ProcessSampler::PSRow& row : ProcessSampler::parse(psOutput, 1).rows) {
    if (row.pid < std::numeric_limits<std::int32_t>::min() ||
        row.pid > std::numeric_limits<std::int32_t>::max()) {
      throw CommandError(fmt::format("the process id {} is out of range", row.pid));
    }
    if (!seen.insert(row.pid).second && unique) {
      throw CommandError(fmt::format("process {} is listed twice", row.pid));
    }
  }
}

}  // namespace

OrderedJson inspectPowermetrics(std::string_view input) {
  const PowermetricsParseOutput output = PowermetricsParser().parse(repairedUTF8(std::string(input)));
  OrderedJson json = {{"cpuPackageW", output.cpuPackageW},
                      {"gpuPackageW", output.gpuPackageW},
                      {"anePackageW", output.anePackageW},
                      {"combinedPackageW", output.combinedPackageW}};
  if (output.totalSystemWatts) json["totalSystemWatts"] = *output.totalSystemWatts;
  json["totalTaskCPUmsPerSec"] = output.totalTaskCPUmsPerSec;
  json["totalTaskGPUmsPerSec"] = output.totalTaskGPUmsPerSec;
  if (output.allTasksCPUmsPerSec) json["allTasksCPUmsPerSec"] = *output.allTasksCPUmsPerSec;
  json["processes"] = encodeJSONList(output.processes, encodeRecord);
  json["hasPackagePower"] = output.hasPackagePower();
  json["resolvedCPUAttributionDenominator"] = output.resolvedCPUAttributionDenominator();
  json["gpuPackageAllocatedByCPUShare"] = output.gpuPackageAllocatedByCPUShare();
  return json;
}

OrderedJson inspectPS(std::string_view input, const PSInspection& options) {
  const std::string text = repairedUTF8(std::string(input));
  requirePossibleProcesses(text, options.tree);
  RunningProcessMetadataCache cache;
  const DefaultShellRunner shell;  // never run here
  const ProcessSampler sampler(
      shell, options.resolve ? ProcessSampler::Surroundings::ofThisSystem() : noSurroundings(cache));
  const ProcessSamplingSnapshot snapshot = sampler.snapshotFrom(text, options.limit, options.tree);
  return {{"sampledProcesses", encodeJSONList(snapshot.sampledProcesses, encodeProcessSample)},
          {"allProcesses", encodeJSONList(snapshot.allProcesses, encodeProcessSample)}};
}

OrderedJson inspectBattery(std::string_view input) {
  return encodeBatteryStatusSample(BatteryStatusCollector::statusFrom(input));
}

OrderedJson inspectBatteryLevel(std::string_view input) {
  const auto decode = [](const Json& json, const JSONPath& path) {
    return decodeJSONRecord<LevelInputs>(json, path, levelInputFields);
  };
  return encodeJSONList(decodeJSONList(parseJSON(input), {}, decode), [](const LevelInputs& level) {
    return DirectBatteryStatusReader::resolveLevelPercent(
        level.displayCurrentCapacity, level.displayMaxCapacity, level.rawCurrentCapacityMah,
        level.rawMaxCapacityMah, level.isCharged);
  });
}

OrderedJson inspectPmset(std::string_view input) {
  return {{"lowPowerMode", lowPowerModeEnabled(repairedUTF8(std::string(input)))}};
}

OrderedJson inspectSMC(std::string_view input) {
  const auto decode = [](const Json& json, const JSONPath& path) -> std::optional<double> {
    const JSONPath typePath(path, "type");
    const auto type = decodeJSON<std::string>(member(json, path, "type"), typePath);
    return decodeSMCValue(type, decodeFourBytes(member(json, path, "bytes"), JSONPath(path, "bytes")));
  };
  return encodeJSONList(decodeJSONList(parseJSON(input), {}, decode), [](const std::optional<double>& value) {
    return value ? OrderedJson(*value) : OrderedJson(nullptr);
  });
}

OrderedJson inspectCPULoad(std::string_view input) {
  const Json json = parseJSON(input);
  const JSONPath root;
  const auto count =
      decodeJSON<std::int64_t>(member(json, root, "logicalCPUCount"), JSONPath(root, "logicalCPUCount"));
  const auto readings =
      decodeJSONList(member(json, root, "readings"), JSONPath(root, "readings"), decodeCPUReading);
  SystemCPULoadReader reader(count, std::make_unique<ReplayedTicks>(readings));
  return encodeJSONList(readings, [&](const CPUReading& reading) -> OrderedJson {
    const SystemCPUSample sample = reader.sample({reading.now});
    return {{"busyFraction", sample.busyFraction},
            {"logicalCPUCount", sample.logicalCPUCount},
            {"intervalSeconds", sample.intervalSeconds}};
  });
}

OrderedJson inspectSystemPower(std::string_view input) {
  const Json json = parseJSON(input);
  const JSONPath root;
  const auto start = decodeJSON<PointInTime>(member(json, root, "startDate"), JSONPath(root, "startDate"));
  const auto decode = [](const Json& reading, const JSONPath& path) {
    return decodeJSONRecord<PowerReading>(reading, path, powerReadingFields);
  };
  const auto readings = decodeJSONList(member(json, root, "readings"), JSONPath(root, "readings"), decode);
  StatsSystemTotalPowerReader reader(std::make_shared<ReplayedSystemPower>(readings), start);
  return encodeJSONList(readings, [&](const PowerReading& reading) -> OrderedJson {
    const StatsSystemTotalSnapshot snapshot = reader.sample({reading.now});
    return {{"instantaneousW", snapshot.instantaneousW},
            {"averageW", snapshot.averageW},
            {"totalConsumptionWh", snapshot.totalConsumptionWh},
            {"available", snapshot.available},
            {"preferredVisibleW", snapshot.preferredVisibleW()}};
  });
}

OrderedJson inspectDischargeEstimate(std::string_view input) {
  const auto decode = [](const Json& json, const JSONPath& path) {
    return decodeJSONList(json, path, decodeJSON<double>);
  };
  return encodeJSONList(decodeJSONList(parseJSON(input), {}, decode),
                        [](const std::vector<double>& percentages) {
                          return BatteryDrainEstimator::estimateTotalDischargeW(percentages);
                        });
}

OrderedJson inspectConfig(std::string_view input) {
  const SamplingConfig config = SnapshotCodec::decodeConfig(input);
  OrderedJson json = encodeSamplingConfig(config);
  json["activeIntervalSec"] = config.activeIntervalSec();
  json["powermetricsCacheTTLSeconds"] = config.powermetricsCacheTTLSeconds();
  return json;
}

OrderedJson inspectSnapshot(std::string_view input) {
  const DrainSnapshot snapshot = SnapshotCodec::decodeSnapshot(input);
  const SnapshotPublicationDecision decision = SnapshotPublicationPolicy::decision(snapshot);
  OrderedJson json = {{"snapshot", encodeDrainSnapshot(snapshot)}, {"decision", rawValue(decision)}};
  if (const auto reason = rejectionReason(decision)) json["rejectionReason"] = *reason;
  return json;
}

}  // namespace quenzel
