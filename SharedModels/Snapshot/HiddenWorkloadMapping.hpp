#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

class JSONPath;

/// A kind of work whose power is borne by processes that don't bear its name.
enum class HiddenDrainKind { dockerContainer, cloudflaredTunnel, launchdService };

inline constexpr std::array allHiddenDrainKinds{
    HiddenDrainKind::dockerContainer, HiddenDrainKind::cloudflaredTunnel, HiddenDrainKind::launchdService};

/// "docker_container", "cloudflared_tunnel" or "launchd_service".
std::string_view rawValue(HiddenDrainKind kind);
/// The kind of exactly that raw value.
std::optional<HiddenDrainKind> hiddenDrainKind(std::string_view rawValue);

/// One host process bearing part of a hidden workload.
struct HiddenWorkloadHostShare {
  std::int64_t pid = 0;
  double share = 0;  ///< the fraction of the workload's power that is charged to this host

  bool operator==(const HiddenWorkloadHostShare&) const = default;
};

/// One hidden workload and the processes that carry it.
struct HiddenWorkloadMapping {
  HiddenDrainKind kind = HiddenDrainKind::dockerContainer;
  std::string identifier = {};  ///< the workload's own name: of the container, the tunnel, the service
  std::vector<HiddenWorkloadHostShare> hostShares = {};

  bool operator==(const HiddenWorkloadMapping&) const = default;
};

// All keys must be there. Each decode throws JSONCodingError.

HiddenDrainKind decodeHiddenDrainKind(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeHiddenDrainKind(HiddenDrainKind kind);
HiddenWorkloadHostShare decodeHiddenWorkloadHostShare(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeHiddenWorkloadHostShare(const HiddenWorkloadHostShare& share);
HiddenWorkloadMapping decodeHiddenWorkloadMapping(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeHiddenWorkloadMapping(const HiddenWorkloadMapping& mapping);

}  // namespace quenzel
