#pragma once

#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

/// Energy over a window of the history.
struct EnergyUsageSummary {
  double totalWh = 0;       ///< drawn by the whole system
  double batteryWh = 0;     ///< the part of it drawn while on battery
  double trackedHours = 0;  ///< hours of the window that snapshots cover
  double trackerWh = 0;     ///< drawn by the monitor's own processes

  bool operator==(const EnergyUsageSummary&) const = default;
};

/// What a read of the history hands to the views.
struct SnapshotHistoryReadModel {
  std::vector<DrainSnapshot> snapshots = {};  ///< oldest first
  EnergyUsageSummary energyUsageSummary = {};

  bool operator==(const SnapshotHistoryReadModel&) const = default;
};

nlohmann::ordered_json encodeEnergyUsageSummary(const EnergyUsageSummary& summary);

}  // namespace quenzel
