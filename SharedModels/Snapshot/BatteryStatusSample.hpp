#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

class JSONPath;

/// The internal battery and the power adapter at one instant. A field that is absent was not reported;
/// absence never stands for zero.
struct BatteryStatusSample {
  double levelPercent = 0;
  std::optional<double> remainingWh = {};
  bool isCharging = false;
  bool externalPowerConnected = false;
  std::optional<std::int64_t> systemTimeRemainingMinutes = {};  ///< the system's own estimate
  std::optional<double> dischargeWatts = {};                    ///< positive; absent unless discharging
  std::optional<std::int64_t> cycleCount = {};
  std::optional<std::int64_t> voltageMV = {};
  std::optional<std::int64_t> amperageMa = {};         ///< negative while discharging
  std::optional<std::int64_t> temperatureCentiC = {};  ///< hundredths of a degree Celsius
  std::optional<std::int64_t> designCapacityMah = {};
  std::optional<std::int64_t> maxCapacityMah = {};      ///< what the battery holds today when it is full
  std::optional<std::int64_t> currentCapacityMah = {};  ///< what it holds now
  std::optional<std::int64_t> nominalChargeCapacityMah = {};
  std::optional<std::int64_t> designCycleCount = {};
  std::optional<std::string> serialNumber = {};
  std::optional<std::string> deviceName = {};
  std::optional<bool> fullyCharged = {};
  std::optional<bool> isACPowered = {};
  std::optional<std::int64_t> adapterWatts = {};  ///< the adapter's rating
  std::optional<std::string> adapterName = {};

  bool operator==(const BatteryStatusSample&) const = default;
};

/// "levelPercent", "isCharging" and "externalPowerConnected" must be there.
/// @throws JSONCodingError
BatteryStatusSample decodeBatteryStatusSample(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeBatteryStatusSample(const BatteryStatusSample& sample);

}  // namespace quenzel
