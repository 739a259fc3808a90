#include "SharedModels/Snapshot/HiddenWorkloadMapping.hpp"

#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

constexpr auto kHostShareFields = std::tuple{
    jsonField("pid", &HiddenWorkloadHostShare::pid),
    jsonField("share", &HiddenWorkloadHostShare::share),
};

constexpr auto kMappingFields = std::tuple{
    jsonField("kind", &HiddenWorkloadMapping::kind, decodeHiddenDrainKind, encodeHiddenDrainKind),
    jsonField("identifier", &HiddenWorkloadMapping::identifier),
    jsonField("hostShares", &HiddenWorkloadMapping::hostShares, decodeHiddenWorkloadHostShare,
              encodeHiddenWorkloadHostShare),
};

}  // namespace

std::string_view rawValue(HiddenDrainKind kind) {
  switch (kind) {
    case HiddenDrainKind::dockerContainer:
      return "docker_container";
    case HiddenDrainKind::cloudflaredTunnel:
      return "cloudflared_tunnel";
    case HiddenDrainKind::launchdService:
      break;
  }
  return "launchd_service";
}

std::optional<HiddenDrainKind> hiddenDrainKind(std::string_view text) {
  for (const HiddenDrainKind kind : allHiddenDrainKinds) {
    if (rawValue(kind) == text) return kind;
  }
  return std::nullopt;
}

HiddenDrainKind decodeHiddenDrainKind(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONEnumeration(json, path, hiddenDrainKind);
}

nlohmann::ordered_json encodeHiddenDrainKind(HiddenDrainKind kind) { return rawValue(kind); }

HiddenWorkloadHostShare decodeHiddenWorkloadHostShare(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<HiddenWorkloadHostShare>(json, path, kHostShareFields);
}

nlohmann::ordered_json encodeHiddenWorkloadHostShare(const HiddenWorkloadHostShare& share) {
  return encodeJSONRecord(share, kHostShareFields);
}

HiddenWorkloadMapping decodeHiddenWorkloadMapping(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<HiddenWorkloadMapping>(json, path, kMappingFields);
}

nlohmann::ordered_json encodeHiddenWorkloadMapping(const HiddenWorkloadMapping& mapping) {
  return encodeJSONRecord(mapping, kMappingFields);
}

}  // namespace quenzel
