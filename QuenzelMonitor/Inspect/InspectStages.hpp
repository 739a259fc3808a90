#pragma once

#include <cstdint>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

// The stages that `quenzel inspect` runs, each from captured bytes to the JSON of its result. They throw what
// the stage throws, and JSONCodingError for input that is not what the stage takes.

struct PSInspection {
  std::int64_t limit = 1000;
  bool tree = false;
  bool resolve = false;  ///< look processes and paths up on this machine
};

nlohmann::ordered_json inspectPowermetrics(std::string_view input);
nlohmann::ordered_json inspectPS(std::string_view input, const PSInspection& options);
nlohmann::ordered_json inspectBattery(std::string_view input);
nlohmann::ordered_json inspectBatteryLevel(std::string_view input);
nlohmann::ordered_json inspectPmset(std::string_view input);
nlohmann::ordered_json inspectSMC(std::string_view input);
nlohmann::ordered_json inspectCPULoad(std::string_view input);
nlohmann::ordered_json inspectSystemPower(std::string_view input);
nlohmann::ordered_json inspectDischargeEstimate(std::string_view input);
nlohmann::ordered_json inspectConfig(std::string_view input);
nlohmann::ordered_json inspectSnapshot(std::string_view input);

}  // namespace quenzel
