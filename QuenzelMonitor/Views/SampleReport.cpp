#include "QuenzelMonitor/Views/SampleReport.hpp"

#include <algorithm>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Base/Text.hpp"
#include "QuenzelMonitor/Views/Terminal.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

constexpr std::string_view modelledMark = " (modelled)";

std::string_view mark(bool modelled) { return modelled ? modelledMark : ""; }

std::string hoursAndMinutes(std::int64_t minutes) {
  return fmt::format("{} h {:02} min", minutes / 60, minutes % 60);
}

std::string chargingRate(const BatteryStatusSample& battery) {
  if (battery.amperageMa.value_or(0) <= 0 || battery.voltageMV.value_or(0) <= 0) return "";
  return fmt::format(" at {:.2f} W", static_cast<double>(*battery.amperageMa) *
                                         static_cast<double>(*battery.voltageMV) / 1e6);
}

/// What the battery does, with the rate at which it does it.
std::string batteryActivity(const BatteryStatusSample& battery) {
  if (battery.dischargeWatts) return fmt::format("discharging at {:.2f} W", *battery.dischargeWatts);
  if (battery.isCharging) return "charging" + chargingRate(battery);
  return battery.fullyCharged.value_or(false) ? "full" : "neither charging nor discharging";
}

/// Minutes of 0 stand for a time that does not apply; a battery that is neither filled nor drained has none.
std::string timeLeft(const BatteryStatusSample& battery) {
  const std::int64_t minutes = battery.systemTimeRemainingMinutes.value_or(0);
  if (minutes < 1 || (!battery.isCharging && !battery.dischargeWatts)) return "";
  return fmt::format(", {} to {}", hoursAndMinutes(minutes), battery.isCharging ? "full" : "empty");
}

std::string batteryLine(const SamplingCycleResult& result) {
  const auto& battery = result.build.batteryStatus;
  if (!battery) return result.hasBattery ? "could not be read" : "none";
  std::string line =
      result.batteryLevelKnown ? fmt::format("{:.1f} %", battery->levelPercent) : "level unknown";
  line.append(", ").append(batteryActivity(*battery));
  if (battery->remainingWh) line += fmt::format(", {:.1f} Wh left", *battery->remainingWh);
  return line.append(timeLeft(*battery)).append(mark(result.modelled.battery));
}

std::string powerSituation(const SamplingCycleResult& result) {
  if (!result.hasBattery && !result.build.batteryStatus) return "external power (the machine has no battery)";
  std::string line = result.onBattery ? "on battery" : "external power";
  const auto& battery = result.build.batteryStatus;
  if (battery && battery->adapterWatts) line += fmt::format(", {} W adapter", *battery->adapterWatts);
  return line.append(mark(result.modelled.battery));
}

/// The components that a total on external power is made of.
std::string addedUp(const AttributionBuildMetadata& metadata) {
  std::string parts = metadata.powermetricsHasPackagePower ? "package" : "";
  for (const auto& [counts, part] :
       {std::pair(metadata.screenModelAvailable, "display"), std::pair(metadata.usbModelAvailable, "USB")}) {
    if (counts) parts += fmt::format("{}{}", parts.empty() ? "" : " + ", part);
  }
  return parts + " power";
}

std::string totalLine(const SamplingCycleResult& result) {
  const std::string_view source = totalPowerSource(result.build);
  if (source == "none") return "unknown: the battery reports no discharge (source none)";
  if (result.build.input.totalDischargeW <= 0) {
    return fmt::format("unknown: no component reports its power (source {})", source);
  }
  const bool byBattery = source == "IOKit";
  return fmt::format("{:.2f} W, {} (source {}){}", result.build.input.totalDischargeW,
                     byBattery ? "reported by the battery" : addedUp(result.build.metadata), source,
                     mark(byBattery ? result.modelled.battery : result.modelled.powerCounters));
}

std::string estimateLine(double watts, bool available) {
  return available ? fmt::format("{:.2f} W", watts) : std::string("not available");
}

/// A line of what each component drew, of those that drew anything; nothing where no counter can be read and
/// for no time, in which nothing is measured. The memory fabric is no part of the sum and stands behind it.
std::string componentsLine(const SamplingCycleResult& result) {
  const SystemPowerSnapshot& power = result.componentPower;
  if (!power.supported || power.intervalSeconds <= 0) return "";
  std::string parts;
  for (const auto& [name, watts] :
       {std::pair("CPU", power.cpuW), std::pair("GPU", power.gpuW), std::pair("ANE", power.aneW),
        std::pair("DRAM", power.dramW), std::pair("PCI", power.pciW)}) {
    if (watts > 0) parts += fmt::format("{} {:.2f} W, ", name, watts);
  }
  const std::string besides = power.memoryFabricW > 0
                                  ? fmt::format(", and memory fabric {:.2f} W besides", power.memoryFabricW)
                                  : std::string();
  return fmt::format("  Components {}{:.2f} W tracked over {:.1f} s{}{}\n", parts, power.totalTrackedW,
                     power.intervalSeconds, besides, mark(result.modelled.powerCounters));
}

/// Processes that draw or compute something, most watts first, those without last; then by CPU and pid.
std::vector<const ProcessSample*> ranked(const std::vector<ProcessSample>& processes, std::size_t count) {
  std::vector<const ProcessSample*> rows;
  rows.reserve(processes.size());
  for (const ProcessSample& process : processes) {
    if (process.powermetricsPackageW || process.cpuPercent > 0) rows.push_back(&process);
  }
  const auto key = [](const ProcessSample* row) {
    return std::tuple(-row->powermetricsPackageW.value_or(-1), -row->cpuPercent, row->pid);
  };
  std::sort(rows.begin(), rows.end(),
            [&](const auto* left, const auto* right) { return key(left) < key(right); });
  rows.resize(std::min(rows.size(), count));
  return rows;
}

std::string wattsSource(const ProcessSample& process, bool modelled) {
  if (!process.powermetricsPackageW) return "ps only";
  std::string source = "powermetrics";
  if (process.powermetricsGPUFallbackAllocated) source += ", GPU by CPU share";
  return source.append(modelled ? ", modelled" : "");
}

/// The name as it fits and can be shown. Of a path the end says most: its folders go first.
std::string shownName(const std::string& name, bool isUnicode, std::optional<std::size_t> room) {
  std::string text = printableLine(name);
  if (!isUnicode) text = asciiLine(text);
  if (!room || columnOffset(text, *room) == text.size()) return text;
  const std::string_view last = lastPathComponent(text);
  const std::string withoutFolders = fmt::format("{}/{}", isUnicode ? "…" : "...", last);
  if (last != text && columnOffset(withoutFolders, *room) == withoutFolders.size()) return withoutFolders;
  return cutToColumns(last, *room, isUnicode);
}

std::string processTable(const SamplingCycleResult& result, const SampleReportLayout& layout) {
  const auto rows = ranked(result.build.input.processes, layout.topProcesses);
  std::size_t sourceWidth = 12;
  for (const ProcessSample* row : rows) {
    sourceWidth = std::max(sourceWidth, wattsSource(*row, result.modelled.powerCounters).size());
  }
  std::string table = fmt::format("{:>8}  {:>6}  {:>8}  {:<{}}  {}\n", "PID", "CPU %", "WATTS", "WATTS FROM",
                                  sourceWidth, "NAME");
  for (const ProcessSample* row : rows) {
    const std::string watts =
        row->powermetricsPackageW ? fmt::format("{:.3f}", *row->powermetricsPackageW) : std::string("-");
    const std::string figures =
        fmt::format("{:>8}  {:>6.1f}  {:>8}  {:<{}}  ", row->pid, row->cpuPercent, watts,
                    wattsSource(*row, result.modelled.powerCounters), sourceWidth);
    std::optional<std::size_t> room;
    if (layout.width && *layout.width > figures.size() + 8) room = *layout.width - figures.size();
    table += figures + shownName(row->name, layout.isUnicode, room) + '\n';
  }
  const std::size_t others = result.build.input.processes.size() - rows.size();
  if (others > 0)
    table += fmt::format("{:>8}  other {}, at rest or below these\n", others,
                         others == 1 ? "process" : "processes");
  return table;
}

nlohmann::ordered_json encodeMetadata(const AttributionBuildMetadata& metadata) {
  return {{"powermetricsCommandOK", metadata.powermetricsCommandOK},
          {"powermetricsParsedProcessCount", metadata.powermetricsParsedProcessCount},
          {"powermetricsHasPackagePower", metadata.powermetricsHasPackagePower},
          {"powermetricsHasSystemPower", metadata.powermetricsHasSystemPower},
          {"usedEstimatedTotalPower", metadata.usedEstimatedTotalPower},
          {"screenModelAvailable", metadata.screenModelAvailable},
          {"usbModelAvailable", metadata.usbModelAvailable}};
}

}  // namespace

std::string sampleReport(const SamplingCycleResult& result, const SampleReportLayout& layout) {
  const AttributionInput& input = result.build.input;
  const AttributionBuildMetadata& metadata = result.build.metadata;
  std::string report = fmt::format(
      "Quenzel at {}\n"
      "  Power      {}\n"
      "  Battery    {}\n"
      "  Total      {}\n"
      "  Display    {}\n"
      "  USB        {}\n"
      "{}"
      "  Processes  {} sampled; powermetrics lists {}\n\n",
      localTimestampText(input.timestamp), powerSituation(result), batteryLine(result), totalLine(result),
      estimateLine(input.screenModelW, metadata.screenModelAvailable),
      estimateLine(input.usbModelW, metadata.usbModelAvailable), componentsLine(result),
      input.processes.size(), metadata.powermetricsParsedProcessCount);
  report += processTable(result, layout);
  report += "CPU % is what ps reports: on Linux the average over the process's whole life.\n";
  if (!result.unavailable.empty()) report += "\nNot available:\n";
  for (const UnavailableSource& missing : result.unavailable) {
    report += fmt::format("  {}: {}\n", missing.source, printableLine(missing.reason));
  }
  if (result.modelled.any()) {
    report += fmt::format(
        "\nModelled, not measured: {}{}{}. The machine has none that can be read, and a model was asked "
        "for.\n",
        result.modelled.battery ? "the battery" : "",
        result.modelled.battery && result.modelled.powerCounters ? " and " : "",
        result.modelled.powerCounters ? "the power counters" : "");
  }
  return report;
}

nlohmann::ordered_json encodeSample(const SamplingCycleResult& result) {
  nlohmann::ordered_json json = {{"time", iso8601Text(result.build.input.timestamp)},
                                 {"input", encodeAttributionInput(result.build.input)},
                                 {"metadata", encodeMetadata(result.build.metadata)}};
  if (result.build.batteryStatus) {
    json["batteryStatus"] = encodeBatteryStatusSample(*result.build.batteryStatus);
    if (!result.batteryLevelKnown) json["batteryStatus"].erase("levelPercent");
  }
  json["componentPower"] = encodeSystemPowerSnapshot(result.componentPower);
  json["totalSource"] = totalPowerSource(result.build);
  json["unavailable"] =
      encodeJSONList(result.unavailable, [](const UnavailableSource& missing) -> nlohmann::ordered_json {
        return {{"source", missing.source}, {"reason", missing.reason}};
      });
  json["modelled"] = nlohmann::ordered_json::array();
  if (result.modelled.battery) json["modelled"].push_back("battery");
  if (result.modelled.powerCounters) json["modelled"].push_back("powerCounters");
  return json;
}

}  // namespace quenzel
