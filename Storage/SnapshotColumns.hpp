#pragma once

#include <tuple>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

// The members behind the columns that are written and read one to one, each list in its table's order.

inline constexpr std::tuple telemetryColumns{
    &SourceTelemetry::powermetricsCommandOK,       &SourceTelemetry::powermetricsParsedProcessCount,
    &SourceTelemetry::powermetricsHasPackagePower, &SourceTelemetry::powermetricsHasSystemPower,
    &SourceTelemetry::usedEstimatedTotalPower,     &SourceTelemetry::screenModelAvailable,
    &SourceTelemetry::usbModelAvailable,
};

inline constexpr std::tuple componentColumns{
    &ComponentDrain::screenW, &ComponentDrain::usbW, &ComponentDrain::cpuW, &ComponentDrain::gpuW,
    &ComponentDrain::aneW,    &ComponentDrain::ramW, &ComponentDrain::pciW, &ComponentDrain::confidence,
};

inline constexpr std::tuple batteryColumns{
    &BatteryStatusSample::levelPercent,
    &BatteryStatusSample::remainingWh,
    &BatteryStatusSample::isCharging,
    &BatteryStatusSample::externalPowerConnected,
    &BatteryStatusSample::systemTimeRemainingMinutes,
    &BatteryStatusSample::dischargeWatts,
    &BatteryStatusSample::cycleCount,
    &BatteryStatusSample::voltageMV,
    &BatteryStatusSample::amperageMa,
    &BatteryStatusSample::temperatureCentiC,
    &BatteryStatusSample::designCapacityMah,
    &BatteryStatusSample::maxCapacityMah,
    &BatteryStatusSample::currentCapacityMah,
    &BatteryStatusSample::nominalChargeCapacityMah,
    &BatteryStatusSample::designCycleCount,
    &BatteryStatusSample::serialNumber,
    &BatteryStatusSample::deviceName,
    &BatteryStatusSample::fullyCharged,
    &BatteryStatusSample::isACPowered,
    &BatteryStatusSample::adapterWatts,
    &BatteryStatusSample::adapterName,
};

}  // namespace quenzel
