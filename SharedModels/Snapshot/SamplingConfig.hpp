#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

class JSONPath;

/// How closely the power is being watched.
enum class SamplingMode { background, interactive, burst };

/// "background", "interactive" or "burst".
std::string_view rawValue(SamplingMode mode);
/// The mode of exactly that raw value.
std::optional<SamplingMode> samplingMode(std::string_view rawValue);

/// What a SamplingConfig is made from: any values, the defaults being those of keys that a document leaves
/// out.
struct SamplingSettings {
  std::int64_t minIntervalSec = 5;
  std::int64_t maxIntervalSec = 30;
  bool developerMode = false;
  SamplingMode samplingMode = SamplingMode::background;
  std::int64_t backgroundIntervalSec = 20;
  std::int64_t interactiveIntervalSec = 8;
  std::int64_t burstIntervalSec = 8;
  std::int64_t powermetricsIntervalSec = 30;
  std::int64_t hiddenRefreshIntervalSec = 300;
  std::int64_t usbRefreshIntervalSec = 300;
  bool isOnBatteryPower = true;

  bool operator==(const SamplingSettings&) const = default;
};

/// How often every collector runs. Each interval is at or above its floor, since there is no other way to
/// make one; to change a field, change its settings and make it anew.
class SamplingConfig {
 public:
  SamplingConfig() = default;
  /// Raises what lies below its floor: 1 s, 30 s for the two refresh intervals, the minimum for the maximum.
  explicit SamplingConfig(const SamplingSettings& settings);

  std::int64_t minIntervalSec() const { return settings_.minIntervalSec; }
  std::int64_t maxIntervalSec() const { return settings_.maxIntervalSec; }
  bool developerMode() const { return settings_.developerMode; }
  SamplingMode samplingMode() const { return settings_.samplingMode; }
  std::int64_t backgroundIntervalSec() const { return settings_.backgroundIntervalSec; }
  std::int64_t interactiveIntervalSec() const { return settings_.interactiveIntervalSec; }
  std::int64_t burstIntervalSec() const { return settings_.burstIntervalSec; }
  std::int64_t powermetricsIntervalSec() const { return settings_.powermetricsIntervalSec; }
  std::int64_t hiddenRefreshIntervalSec() const { return settings_.hiddenRefreshIntervalSec; }
  std::int64_t usbRefreshIntervalSec() const { return settings_.usbRefreshIntervalSec; }
  bool isOnBatteryPower() const { return settings_.isOnBatteryPower; }
  bool isOnBattery() const { return settings_.isOnBatteryPower; }

  /// The interval of the current mode.
  std::int64_t activeIntervalSec() const;
  /// How long a powermetrics sample stays good: its interval, outside background mode 10 s at most.
  std::int64_t powermetricsCacheTTLSeconds() const;

  /// The settings with the floors applied.
  const SamplingSettings& settings() const { return settings_; }

  bool operator==(const SamplingConfig&) const = default;

 private:
  SamplingSettings settings_;
};

/// Every key may be missing.
/// @throws JSONCodingError
SamplingConfig decodeSamplingConfig(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeSamplingConfig(const SamplingConfig& config);

}  // namespace quenzel
