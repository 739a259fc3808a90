#include "Engine/Attribution.hpp"

#include <algorithm>
#include <cmath>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Base/Number.hpp"
#include "SharedModels/Snapshot/ModelledFigures.hpp"
#include "SharedModels/Snapshot/SnapshotQuality.hpp"

namespace quenzel {
namespace {

double usable(double value) { return std::isfinite(value) ? nonNegative(value) : 0; }

/// What wanted watts are multiplied by so that they don't exceed those that there are.
double fitting(double wantedW, double availableW) { return wantedW > availableW ? availableW / wantedW : 1; }

void scale(ProcessDrain& row, double factor) {
  row.drainW *= factor;
  if (row.cpuAttributedW) *row.cpuAttributedW *= factor;
}

/// Percent of one processor that all of them have to give.
double cpuCapacityPercent(const AttributionSituation& situation) {
  return 100.0 * static_cast<double>(std::max<std::int64_t>(situation.logicalCPUCount, 1));
}

void takeMeasuredWatts(ProcessDrain& row, const ProcessSample& sample, bool modelled) {
  row.drainW = usable(sample.powermetricsPackageW.value_or(0));
  if (row.drainW <= 0) return;
  row.cpuAttributedW = std::min(usable(sample.powermetricsCPUW.value_or(0)), row.drainW);
  row.sourceFlags = {"powermetrics"};
  if (sample.powermetricsGPUFallbackAllocated) row.sourceFlags.emplace_back("powermetrics-gpu-estimated");
  if (modelled) row.sourceFlags.emplace_back(modelledSourceFlag);
}

std::vector<ProcessDrain> measuredRows(const AttributionInput& input, const AttributionSituation& situation) {
  std::vector<ProcessDrain> rows;
  rows.reserve(input.processes.size());
  std::unordered_set<std::string> seen;
  for (const ProcessSample& sample : input.processes) {
    ProcessDrain row{
        .pid = sample.pid, .parentPID = sample.parentPID, .name = sample.name, .bundleID = sample.bundleID};
    if (!seen.insert(row.id()).second) continue;
    if (std::isfinite(sample.cpuPercent) && sample.cpuPercent >= 0) {
      row.rawCPUPercent = sample.cpuPercent;
      row.cpuCapacityFraction = std::min(sample.cpuPercent / cpuCapacityPercent(situation), 1.0);
    }
    takeMeasuredWatts(row, sample, situation.modelled.powerCounters);
    rows.push_back(std::move(row));
  }
  return rows;
}

void fitMeasuredWatts(DrainSnapshot& snapshot) {
  const double factor = fitting(attributedProcessW(snapshot), snapshot.totalDischargeW);
  if (factor >= 1) return;
  for (ProcessDrain& row : snapshot.processes) {
    if (row.drainW <= 0) continue;
    scale(row, factor);
    row.sourceFlags.emplace_back("scaled-to-total");
  }
}

/// The chip's components as its counters tell them, with display and USB as far as there are watts left.
ComponentDrain componentsWithin(double availableW, const AttributionInput& input,
                                const SystemPowerSnapshot& chip, double totalW) {
  const double screenW = usable(input.screenModelW);
  const double usbW = usable(input.usbModelW);
  const double factor = fitting(screenW + usbW, availableW);
  ComponentDrain components{.screenW = screenW * factor, .usbW = usbW * factor};
  if (!chip.supported || chip.intervalSeconds <= 0) return components;
  components.cpuW = usable(chip.cpuW);
  components.gpuW = usable(chip.gpuW);
  components.aneW = usable(chip.aneW);
  components.dramW = usable(chip.dramW);
  components.memoryFabricW = usable(chip.memoryFabricW);
  components.ramW = usable(chip.ramW);
  components.pciW = usable(chip.pciW);
  const double knownW = components.displayPlusUsbW() + usable(chip.totalTrackedW);
  if (totalW > 0) components.confidence = std::min(knownW / totalW, 1.0);
  return components;
}

void shareOutByCPU(std::vector<ProcessDrain>& rows, double watts, const AttributionSituation& situation,
                   bool modelled) {
  double busyPercent = 0;
  for (const ProcessDrain& row : rows) busyPercent += row.rawCPUPercent.value_or(0);
  const double allPercent = std::max(busyPercent, cpuCapacityPercent(situation));
  for (ProcessDrain& row : rows) {
    const double share = row.rawCPUPercent.value_or(0) / allPercent;
    if (share <= 0) continue;
    row.drainW = watts * share;
    row.cpuAttributedW = row.drainW;
    row.sourceFlags = {"cpu-share"};
    if (modelled) row.sourceFlags.emplace_back(modelledSourceFlag);
  }
}

/// The watts of hosts on their way to the workloads that they carry.
class HiddenWorkloadHosts {
 public:
  HiddenWorkloadHosts(std::vector<ProcessDrain>& rows, const std::vector<HiddenWorkloadMapping>& mappings) {
    for (const HiddenWorkloadMapping& mapping : mappings) {
      for (const HiddenWorkloadHostShare& share : mapping.hostShares)
        hosts_[share.pid].shares += fraction(share);
    }
    for (ProcessDrain& row : rows) {
      const auto host = hosts_.find(row.pid);
      if (host != hosts_.end() && !host->second.row) host->second.row = &row;
    }
  }

  double wattsOf(const HiddenWorkloadMapping& mapping) const {
    double watts = 0;
    for (const HiddenWorkloadHostShare& share : mapping.hostShares) {
      const Host& host = hosts_.at(share.pid);
      if (host.row) watts += host.row->drainW * fraction(share) / std::max(host.shares, 1.0);
    }
    return watts;
  }

  void giveAway() {
    for (const auto& [pid, host] : hosts_) {
      if (!host.row || host.row->drainW <= 0 || host.shares <= 0) continue;
      scale(*host.row, 1 - std::min(host.shares, 1.0));
      host.row->sourceFlags.emplace_back("hidden-workload-host");
    }
  }

 private:
  struct Host {
    double shares = 0;
    ProcessDrain* row = nullptr;  ///< none for a process that was not sampled
  };

  static double fraction(const HiddenWorkloadHostShare& share) { return std::min(usable(share.share), 1.0); }

  std::unordered_map<std::int64_t, Host> hosts_;
};

void moveToHiddenWorkloads(DrainSnapshot& snapshot, const std::vector<HiddenWorkloadMapping>& mappings) {
  HiddenWorkloadHosts hosts(snapshot.processes, mappings);
  for (const HiddenWorkloadMapping& mapping : mappings) {
    const double watts = hosts.wattsOf(mapping);
    const auto same =
        std::find_if(snapshot.hidden.begin(), snapshot.hidden.end(), [&mapping](const HiddenDrain& hidden) {
          return hidden.kind == mapping.kind && hidden.identifier == mapping.identifier;
        });
    if (same != snapshot.hidden.end()) {
      same->drainW += watts;
    } else {
      snapshot.hidden.push_back({mapping.kind, mapping.identifier, watts});
    }
  }
  hosts.giveAway();
}

/// What follows from the parts: the rest, and each process's share.
void settle(DrainSnapshot& snapshot) {
  const double partsW =
      snapshot.components.displayPlusUsbW() + attributedProcessW(snapshot) + hiddenWorkloadW(snapshot);
  snapshot.unattributedW = nonNegative(snapshot.totalDischargeW - partsW);
  for (ProcessDrain& row : snapshot.processes) row.energyShare = partsW > 0 ? row.drainW / partsW : 0;
}

SourceTelemetry telemetryOf(const AttributionBuildMetadata& metadata) {
  return {.powermetricsCommandOK = metadata.powermetricsCommandOK,
          .powermetricsParsedProcessCount = metadata.powermetricsParsedProcessCount,
          .powermetricsHasPackagePower = metadata.powermetricsHasPackagePower,
          .powermetricsHasSystemPower = metadata.powermetricsHasSystemPower,
          .usedEstimatedTotalPower = metadata.usedEstimatedTotalPower,
          .screenModelAvailable = metadata.screenModelAvailable,
          .usbModelAvailable = metadata.usbModelAvailable};
}

/// A reading without a level is none; its other figures may be missing.
std::optional<BatteryStatusSample> finite(std::optional<BatteryStatusSample> status) {
  if (!status || !std::isfinite(status->levelPercent)) return std::nullopt;
  for (std::optional<double>* const figure : {&status->remainingWh, &status->dischargeWatts}) {
    if (!std::isfinite(figure->value_or(0))) figure->reset();
  }
  return status;
}

}  // namespace

DrainSnapshot attribute(const AttributionBuildResult& build, const AttributionSituation& situation) {
  const AttributionInput& input = build.input;
  DrainSnapshot snapshot{.timestamp = input.timestamp, .totalDischargeW = usable(input.totalDischargeW)};
  snapshot.telemetry = telemetryOf(build.metadata);
  if (situation.batteryLevelKnown) snapshot.batteryStatus = finite(build.batteryStatus);
  snapshot.powerContext = PowerUsageContext{.onBatteryPower = situation.onBattery};
  if (snapshot.batteryStatus)
    snapshot.powerContext->batteryLevelPercent = snapshot.batteryStatus->levelPercent;

  snapshot.processes = measuredRows(input, situation);
  const bool anyMeasured = attributedProcessW(snapshot) > 0;
  fitMeasuredWatts(snapshot);
  double leftW = nonNegative(snapshot.totalDischargeW - attributedProcessW(snapshot));
  snapshot.components = componentsWithin(leftW, input, situation.componentPower, snapshot.totalDischargeW);
  if (!anyMeasured) {
    leftW = nonNegative(leftW - snapshot.components.displayPlusUsbW());
    const bool totalIsModelled = build.metadata.usedEstimatedTotalPower ? situation.modelled.powerCounters
                                                                        : situation.modelled.battery;
    shareOutByCPU(snapshot.processes, leftW, situation, totalIsModelled);
  }
  moveToHiddenWorkloads(snapshot, input.hiddenMappings);
  settle(snapshot);
  return snapshot;
}

void dropNegligibleRows(DrainSnapshot& snapshot) {
  const auto isNegligible = [](const auto& row) { return row.drainW < leastRowW; };
  std::erase_if(snapshot.processes, isNegligible);
  std::erase_if(snapshot.hidden, isNegligible);
  settle(snapshot);
}

}  // namespace quenzel
