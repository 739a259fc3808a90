#pragma once

#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

// Stages of `quenzel inspect` for names, groups and what quitting one would end; see InspectStages.hpp.

nlohmann::ordered_json inspectPresentation(std::string_view input);
nlohmann::ordered_json inspectSyntheticPID(std::string_view input);
nlohmann::ordered_json inspectTermination(std::string_view input);
nlohmann::ordered_json inspectAppleProcess(std::string_view input);

}  // namespace quenzel
