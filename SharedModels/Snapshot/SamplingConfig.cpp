#include "SharedModels/Snapshot/SamplingConfig.hpp"

#include <algorithm>
#include <array>

#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

constexpr std::array kModes{SamplingMode::background, SamplingMode::interactive, SamplingMode::burst};

SamplingMode decodeSamplingMode(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONEnumeration(json, path, samplingMode);
}

nlohmann::ordered_json encodeSamplingMode(SamplingMode mode) { return rawValue(mode); }

constexpr auto kFields = std::tuple{
    defaultedJSONField("minIntervalSec", &SamplingSettings::minIntervalSec),
    defaultedJSONField("maxIntervalSec", &SamplingSettings::maxIntervalSec),
    defaultedJSONField("developerMode", &SamplingSettings::developerMode),
    defaultedJSONField("samplingMode", &SamplingSettings::samplingMode, decodeSamplingMode,
                       encodeSamplingMode),
    defaultedJSONField("backgroundIntervalSec", &SamplingSettings::backgroundIntervalSec),
    defaultedJSONField("interactiveIntervalSec", &SamplingSettings::interactiveIntervalSec),
    defaultedJSONField("burstIntervalSec", &SamplingSettings::burstIntervalSec),
    defaultedJSONField("powermetricsIntervalSec", &SamplingSettings::powermetricsIntervalSec),
    defaultedJSONField("hiddenRefreshIntervalSec", &SamplingSettings::hiddenRefreshIntervalSec),
    defaultedJSONField("usbRefreshIntervalSec", &SamplingSettings::usbRefreshIntervalSec),
    defaultedJSONField("isOnBatteryPower", &SamplingSettings::isOnBatteryPower),
};

constexpr std::int64_t kLongestCacheTTLSeconds = 10;

}  // namespace

std::string_view rawValue(SamplingMode mode) {
  switch (mode) {
    case SamplingMode::background:
      return "background";
    case SamplingMode::interactive:
      return "interactive";
    case SamplingMode::burst:
      break;
  }
  return "burst";
}

std::optional<SamplingMode> samplingMode(std::string_view text) {
  for (const SamplingMode mode : kModes) {
    if (rawValue(mode) == text) return mode;
  }
  return std::nullopt;
}

SamplingConfig::SamplingConfig(const SamplingSettings& settings) : settings_(settings) {
  const auto raise = [](std::int64_t& interval, std::int64_t floor) { interval = std::max(interval, floor); };
  raise(settings_.minIntervalSec, 1);
  raise(settings_.maxIntervalSec, settings_.minIntervalSec);
  raise(settings_.backgroundIntervalSec, 1);
  raise(settings_.interactiveIntervalSec, 1);
  raise(settings_.burstIntervalSec, 1);
  raise(settings_.powermetricsIntervalSec, 1);
  raise(settings_.hiddenRefreshIntervalSec, 30);
  raise(settings_.usbRefreshIntervalSec, 30);
}

std::int64_t SamplingConfig::activeIntervalSec() const {
  switch (samplingMode()) {
    case SamplingMode::background:
      return backgroundIntervalSec();
    case SamplingMode::interactive:
      return interactiveIntervalSec();
    case SamplingMode::burst:
      break;
  }
  return burstIntervalSec();
}

std::int64_t SamplingConfig::powermetricsCacheTTLSeconds() const {
  if (samplingMode() == SamplingMode::background) return powermetricsIntervalSec();
  return std::min(powermetricsIntervalSec(), kLongestCacheTTLSeconds);
}

SamplingConfig decodeSamplingConfig(const nlohmann::json& json, const JSONPath& path) {
  return SamplingConfig(decodeJSONRecord<SamplingSettings>(json, path, kFields));
}

nlohmann::ordered_json encodeSamplingConfig(const SamplingConfig& config) {
  return encodeJSONRecord(config.settings(), kFields);
}

}  // namespace quenzel
