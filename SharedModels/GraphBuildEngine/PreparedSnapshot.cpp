#include "SharedModels/GraphBuildEngine/PreparedSnapshot.hpp"

#include "SharedModels/Snapshot/SnapshotQuality.hpp"

namespace quenzel::GraphBuildEngine {

PreparedSnapshot preparedSnapshot(const DrainSnapshot& snapshot) {
  PreparedSnapshot prepared{.timestamp = snapshot.timestamp,
                            .totalW = snapshot.totalDischargeW,
                            .processW = attributedProcessW(snapshot),
                            .componentW = snapshot.components.displayPlusUsbW(),
                            .unattributedW = snapshot.unattributedW,
                            .onBatteryPower = snapshot.powerContext && snapshot.powerContext->onBatteryPower};
  if (snapshot.batteryStatus) prepared.batteryLevelPercent = snapshot.batteryStatus->levelPercent;
  return prepared;
}

std::vector<PreparedSnapshot> preparedSnapshots(std::span<const DrainSnapshot> snapshots) {
  std::vector<PreparedSnapshot> prepared;
  prepared.reserve(snapshots.size());
  for (const DrainSnapshot& snapshot : snapshots) prepared.push_back(preparedSnapshot(snapshot));
  return prepared;
}

}  // namespace quenzel::GraphBuildEngine
