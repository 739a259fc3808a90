#include "Storage/SnapshotValidation.hpp"

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include <fmt/format.h>

#include "Base/Text.hpp"
#include "Storage/SnapshotStoreError.hpp"

namespace quenzel {
namespace {

void validateNames(const ProcessDrain& process) {
  struct RequiredColumn {
    const char* name;
    std::optional<std::string> ProcessDrain::*member;
  };
  constexpr RequiredColumn required[] = {{"display_name", &ProcessDrain::displayName},
                                         {"canonical_name", &ProcessDrain::canonicalName},
                                         {"process_group_key", &ProcessDrain::processGroupKey}};
  for (const RequiredColumn& column : required) {
    if (!isBlank((process.*column.member).value_or(""))) continue;
    throw SnapshotStoreError::withMessage(
        fmt::format("Missing {} for published process row: {}", column.name, process.name));
  }
}

void validatePID(std::int64_t pid, const ProcessDrain& process) {
  using Limits = std::numeric_limits<std::int32_t>;
  if (pid >= Limits::min() && pid <= Limits::max()) return;
  throw SnapshotStoreError::withMessage(
      fmt::format("PID {} is out of range for published process row: {}", pid, process.name));
}

/// A real-valued member and the name that it has in JSON.
template <typename Record, typename Member>
struct RealField {
  const char* name;
  Member Record::*member;
};
template <typename Record, typename Member>
RealField(const char*, Member Record::*) -> RealField<Record, Member>;

constexpr std::tuple snapshotFields{RealField{"totalDischargeW", &DrainSnapshot::totalDischargeW},
                                    RealField{"unattributedW", &DrainSnapshot::unattributedW}};

constexpr std::tuple processFields{RealField{"drainW", &ProcessDrain::drainW},
                                   RealField{"energyShare", &ProcessDrain::energyShare},
                                   RealField{"rawCPUPercent", &ProcessDrain::rawCPUPercent},
                                   RealField{"cpuCapacityFraction", &ProcessDrain::cpuCapacityFraction},
                                   RealField{"cpuAttributedW", &ProcessDrain::cpuAttributedW},
                                   RealField{"ramAttributedW", &ProcessDrain::ramAttributedW}};

constexpr std::tuple hiddenFields{RealField{"drainW", &HiddenDrain::drainW}};

constexpr std::tuple componentFields{RealField{"screenW", &ComponentDrain::screenW},
                                     RealField{"usbW", &ComponentDrain::usbW},
                                     RealField{"cpuW", &ComponentDrain::cpuW},
                                     RealField{"gpuW", &ComponentDrain::gpuW},
                                     RealField{"aneW", &ComponentDrain::aneW},
                                     RealField{"dramW", &ComponentDrain::dramW},
                                     RealField{"memoryFabricW", &ComponentDrain::memoryFabricW},
                                     RealField{"ramW", &ComponentDrain::ramW},
                                     RealField{"pciW", &ComponentDrain::pciW},
                                     RealField{"confidence", &ComponentDrain::confidence}};

constexpr std::tuple powerContextFields{
    RealField{"batteryLevelPercent", &PowerUsageContext::batteryLevelPercent}};

constexpr std::tuple batteryFields{RealField{"levelPercent", &BatteryStatusSample::levelPercent},
                                   RealField{"remainingWh", &BatteryStatusSample::remainingWh},
                                   RealField{"dischargeWatts", &BatteryStatusSample::dischargeWatts}};

bool isFinite(double value) { return std::isfinite(value); }
bool isFinite(const std::optional<double>& value) { return std::isfinite(value.value_or(0)); }

/// @param owner whose fields these are, as the message names it
template <typename Record, typename Fields>
void validateNumbers(const Record& record, const Fields& fields, std::string_view owner) {
  const auto validate = [&](const auto& field) {
    if (isFinite(record.*field.member)) return;
    throw SnapshotStoreError::withMessage(
        fmt::format("{} of the {} is not a finite number", field.name, owner));
  };
  std::apply([&](const auto&... field) { (validate(field), ...); }, fields);
}

}  // namespace

void validateForInsertion(const DrainSnapshot& snapshot) {
  for (const ProcessDrain& process : snapshot.processes) validateNames(process);
  for (const ProcessDrain& process : snapshot.processes) {
    validatePID(process.pid, process);
    validatePID(process.parentPID.value_or(0), process);
    validateNumbers(process, processFields, fmt::format("process row {}", process.name));
  }
  if (!std::isfinite(snapshot.timestamp.secondsSince1970()))
    throw SnapshotStoreError::withMessage("timestamp of the snapshot is not a finite number");
  validateNumbers(snapshot, snapshotFields, "snapshot");
  validateNumbers(snapshot.components, componentFields, "components");
  for (const HiddenDrain& hidden : snapshot.hidden)
    validateNumbers(hidden, hiddenFields, fmt::format("hidden workload {}", hidden.identifier));
  validateNumbers(snapshot.powerContext.value_or(PowerUsageContext{}), powerContextFields, "power context");
  validateNumbers(snapshot.batteryStatus.value_or(BatteryStatusSample{}), batteryFields, "battery status");
}

}  // namespace quenzel
