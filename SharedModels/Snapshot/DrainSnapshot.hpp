#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Base/PointInTime.hpp"
#include "SharedModels/Snapshot/BatteryStatusSample.hpp"
#include "SharedModels/Snapshot/HiddenWorkloadMapping.hpp"

namespace quenzel {

class JSONPath;

/// Which inputs an attribution pass could use.
struct SourceTelemetry {
  bool powermetricsCommandOK = false;  ///< the command ran and exited successfully
  std::int64_t powermetricsParsedProcessCount = 0;
  bool powermetricsHasPackagePower = false;
  bool powermetricsHasSystemPower = false;
  bool usedEstimatedTotalPower = false;  ///< the total was estimated rather than measured
  bool screenModelAvailable = false;
  bool usbModelAvailable = false;

  bool powermetricsAvailable() const { return powermetricsCommandOK; }
  bool powermetricsAttributionAvailable() const { return powermetricsHasPackagePower; }

  bool operator==(const SourceTelemetry&) const = default;
};

/// The power situation at the snapshot.
struct PowerUsageContext {
  bool onBatteryPower = false;
  std::optional<double> batteryLevelPercent = {};

  bool operator==(const PowerUsageContext&) const = default;
};

/// One process's share of the drain.
struct ProcessDrain {
  std::int64_t pid = 0;  ///< negative for rows that are no process
  std::optional<std::int64_t> parentPID = {};
  std::string name = {};
  std::optional<std::string> bundleID = {};
  std::optional<std::string> displayName = {};
  std::optional<std::string> canonicalName = {};    ///< the normalised name that rows are grouped by
  std::optional<std::string> processGroupKey = {};  ///< of the application that the process belongs to
  double drainW = 0;
  double energyShare = 0;  ///< fraction of the attributed total
  std::optional<double> rawCPUPercent = {};
  std::optional<double> cpuCapacityFraction = {};  ///< fraction of all cores
  std::optional<double> cpuAttributedW = {};       ///< the part of drainW that came through CPU use
  std::optional<double> ramAttributedW = {};       ///< the part that came through memory
  std::vector<std::string> sourceFlags = {};       ///< labels of the sources that fed this row

  /// "<pid>-<name>": the key of the row in maps of energy.
  std::string id() const;
  /// Whether the label of any source begins with "powermetrics".
  bool hasPowermetricsSourceFlag() const;

  bool operator==(const ProcessDrain&) const = default;
};

/// The power of one hidden workload.
struct HiddenDrain {
  HiddenDrainKind kind = HiddenDrainKind::dockerContainer;
  std::string identifier = {};
  double drainW = 0;

  /// "<kind>-<identifier>"
  std::string id() const;

  bool operator==(const HiddenDrain&) const = default;
};

/// The split of the total power by hardware component, in watts.
struct ComponentDrain {
  double screenW = 0;
  double usbW = 0;
  double cpuW = 0;
  double gpuW = 0;
  double aneW = 0;  ///< neural engine
  double dramW = 0;
  double memoryFabricW = 0;
  double ramW = 0;
  double pciW = 0;
  std::optional<double> confidence = {};

  double displayPlusUsbW() const { return screenW + usbW; }

  bool operator==(const ComponentDrain&) const = default;
};

/// The published result of one attribution pass: the power drawn, how it is split over processes, hidden
/// workloads and components, how much stayed unattributed, and which sources were usable.
struct DrainSnapshot {
  PointInTime timestamp = {};
  double totalDischargeW = 0;
  std::vector<ProcessDrain> processes = {};
  std::vector<HiddenDrain> hidden = {};
  ComponentDrain components = {};
  double unattributedW = 0;
  std::optional<SourceTelemetry> telemetry = {};
  std::optional<PowerUsageContext> powerContext = {};
  std::optional<BatteryStatusSample> batteryStatus = {};

  bool operator==(const DrainSnapshot&) const = default;
};

// Keys must be there unless the field is an optional; of ComponentDrain each may be missing. Each decode
// throws JSONCodingError.

SourceTelemetry decodeSourceTelemetry(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeSourceTelemetry(const SourceTelemetry& telemetry);
PowerUsageContext decodePowerUsageContext(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodePowerUsageContext(const PowerUsageContext& context);
ProcessDrain decodeProcessDrain(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeProcessDrain(const ProcessDrain& process);
HiddenDrain decodeHiddenDrain(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeHiddenDrain(const HiddenDrain& hidden);
ComponentDrain decodeComponentDrain(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeComponentDrain(const ComponentDrain& components);
DrainSnapshot decodeDrainSnapshot(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeDrainSnapshot(const DrainSnapshot& snapshot);

}  // namespace quenzel
