#pragma once

#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Base/PointInTime.hpp"
#include "SharedModels/Snapshot/HiddenWorkloadMapping.hpp"
#include "SharedModels/Snapshot/ProcessSample.hpp"

namespace quenzel {

/// Everything that one attribution pass needs.
struct AttributionInput {
  PointInTime timestamp = {};  ///< when the inputs were gathered
  double totalDischargeW = 0;  ///< the power to be attributed
  std::vector<ProcessSample> processes = {};
  std::vector<HiddenWorkloadMapping> hiddenMappings = {};
  double screenModelW = 0;
  double usbModelW = 0;
  bool developerMode = false;

  bool operator==(const AttributionInput&) const = default;
};

/// For people and their tools to look at; it is never read back.
nlohmann::ordered_json encodeAttributionInput(const AttributionInput& input);

}  // namespace quenzel
