#include "SharedModels/Snapshot/AttributionInput.hpp"

#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {

nlohmann::ordered_json encodeAttributionInput(const AttributionInput& input) {
  static constexpr auto fields = std::tuple{
      jsonField("timestamp", &AttributionInput::timestamp),
      jsonField("totalDischargeW", &AttributionInput::totalDischargeW),
      jsonField("processes", &AttributionInput::processes, decodeProcessSample, encodeProcessSample),
      jsonField("hiddenMappings", &AttributionInput::hiddenMappings, decodeHiddenWorkloadMapping,
                encodeHiddenWorkloadMapping),
      jsonField("screenModelW", &AttributionInput::screenModelW),
      jsonField("usbModelW", &AttributionInput::usbModelW),
      jsonField("developerMode", &AttributionInput::developerMode),
  };
  return encodeJSONRecord(input, fields);
}

}  // namespace quenzel
