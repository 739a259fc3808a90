#include <cstdio>

#include "MetricsCollectors/PowermetricsParser.hpp"
#include "Storage/SQLiteSnapshotStoreLocation.hpp"

int main() {
  const auto output = quenzel::PowermetricsParser().parse("CPU Power: 1500 mW\n");
  std::printf("%.1f W; history at %s\n", output.cpuPackageW,
              quenzel::SQLiteSnapshotStoreLocation::sharedSnapshotDatabaseURL().c_str());
  return output.cpuPackageW == 1.5 ? 0 : 1;
}
