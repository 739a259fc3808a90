#include "SharedModels/Snapshot/BatteryStatusSample.hpp"

#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

constexpr auto kFields = std::tuple{
    jsonField("levelPercent", &BatteryStatusSample::levelPercent),
    jsonField("remainingWh", &BatteryStatusSample::remainingWh),
    jsonField("isCharging", &BatteryStatusSample::isCharging),
    jsonField("externalPowerConnected", &BatteryStatusSample::externalPowerConnected),
    jsonField("systemTimeRemainingMinutes", &BatteryStatusSample::systemTimeRemainingMinutes),
    jsonField("dischargeWatts", &BatteryStatusSample::dischargeWatts),
    jsonField("cycleCount", &BatteryStatusSample::cycleCount),
    jsonField("voltageMV", &BatteryStatusSample::voltageMV),
    jsonField("amperageMa", &BatteryStatusSample::amperageMa),
    jsonField("temperatureCentiC", &BatteryStatusSample::temperatureCentiC),
    jsonField("designCapacityMah", &BatteryStatusSample::designCapacityMah),
    jsonField("maxCapacityMah", &BatteryStatusSample::maxCapacityMah),
    jsonField("currentCapacityMah", &BatteryStatusSample::currentCapacityMah),
    jsonField("nominalChargeCapacityMah", &BatteryStatusSample::nominalChargeCapacityMah),
    jsonField("designCycleCount", &BatteryStatusSample::designCycleCount),
    jsonField("serialNumber", &BatteryStatusSample::serialNumber),
    jsonField("deviceName", &BatteryStatusSample::deviceName),
    jsonField("fullyCharged", &BatteryStatusSample::fullyCharged),
    jsonField("isACPowered", &BatteryStatusSample::isACPowered),
    jsonField("adapterWatts", &BatteryStatusSample::adapterWatts),
    jsonField("adapterName", &BatteryStatusSample::adapterName),
};

}  // namespace

BatteryStatusSample decodeBatteryStatusSample(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<BatteryStatusSample>(json, path, kFields);
}

nlohmann::ordered_json encodeBatteryStatusSample(const BatteryStatusSample& sample) {
  return encodeJSONRecord(sample, kFields);
}

}  // namespace quenzel
