#include "SharedModels/Snapshot/SnapshotHistoryReadModel.hpp"

#include <nlohmann/json.hpp>

namespace quenzel {

nlohmann::ordered_json encodeEnergyUsageSummary(const EnergyUsageSummary& summary) {
  return {{"totalWh", summary.totalWh},
          {"batteryWh", summary.batteryWh},
          {"trackedHours", summary.trackedHours},
          {"trackerWh", summary.trackerWh}};
}

}  // namespace quenzel
