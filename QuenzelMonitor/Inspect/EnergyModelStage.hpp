#pragma once

#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

/// The `energy-model` stage: readings of the energy counters, one after another through one reader, to the
/// component powers of each.
/// @throws JSONCodingError for input that is not what the stage takes
nlohmann::ordered_json inspectEnergyModel(std::string_view input);

}  // namespace quenzel
