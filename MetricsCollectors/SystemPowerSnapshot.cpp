#include "MetricsCollectors/SystemPowerSnapshot.hpp"

#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

constexpr auto fields = std::tuple{
    jsonField("cpuW", &SystemPowerSnapshot::cpuW),
    jsonField("gpuW", &SystemPowerSnapshot::gpuW),
    jsonField("aneW", &SystemPowerSnapshot::aneW),
    jsonField("dramW", &SystemPowerSnapshot::dramW),
    jsonField("memoryFabricW", &SystemPowerSnapshot::memoryFabricW),
    jsonField("ramW", &SystemPowerSnapshot::ramW),
    jsonField("pciW", &SystemPowerSnapshot::pciW),
    jsonField("displayW", &SystemPowerSnapshot::displayW),
    jsonField("totalTrackedW", &SystemPowerSnapshot::totalTrackedW),
    jsonField("intervalSeconds", &SystemPowerSnapshot::intervalSeconds),
    jsonField("supported", &SystemPowerSnapshot::supported),
};

}  // namespace

nlohmann::ordered_json encodeSystemPowerSnapshot(const SystemPowerSnapshot& snapshot) {
  return encodeJSONRecord(snapshot, fields);
}

}  // namespace quenzel
