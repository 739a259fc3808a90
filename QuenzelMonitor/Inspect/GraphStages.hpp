#pragma once

#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

// Stages of `quenzel inspect` between the stored history and what graphs and lists show; see
// InspectStages.hpp.

nlohmann::ordered_json inspectSummary(std::string_view input);
nlohmann::ordered_json inspectPowerTrend(std::string_view input);
nlohmann::ordered_json inspectBatteryTrend(std::string_view input);
nlohmann::ordered_json inspectSnapshotQuality(std::string_view input);

}  // namespace quenzel
