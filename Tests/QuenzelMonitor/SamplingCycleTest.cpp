#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Platform/PropertyList.hpp"
#include "QuenzelMonitor/Attribution.hpp"
#include "QuenzelMonitor/SampleReport.hpp"
#include "Tests/Support/FakeShell.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel {
namespace {

using testing::FakeShell;
using testing::SystemTree;

/// The line of the report that begins with the label, without it.
std::string line(const std::string& report, const std::string& label) {
  const std::size_t start = report.find("\n  " + label) + 3 + label.size();
  return report.substr(start, report.find('\n', start) - start);
}

TEST(SamplingCycle, GivesOneAnswerAboutTheBattery) {
  const std::string drained = "Voltage=12000,Amperage=-1500,ExternalConnected=false";
  struct Row {
    const char* title;
    std::string supply;  // of the kernel, which the direct reader sees
    std::string entry;   // that ioreg prints; nothing: it fails
    const char* power;
    const char* battery;
    const char* total;
    std::optional<double> storedLevel;
  };
  const Row rows[] = {
      {"the total comes from the battery, whatever the kernel says of the adapter", "status=Full,capacity=90",
       drained + ",CurrentCapacity=81,MaxCapacity=100", "on battery", "81.0 %, discharging at 18.00 W",
       "18.00 W, reported by the battery (source IOKit)", 81},
      {"and the other way round", "status=Discharging,capacity=90",
       "Voltage=12000,ExternalConnected=true,CurrentCapacity=81,MaxCapacity=100,FullyCharged=true",
       "external power", "81.0 %, full",
       "unknown: no component reports its power (source PM-Package+Components)", 81},
      {"only the kernel tells", "status=Discharging,capacity=90", "", "on battery", "could not be read",
       "unknown: the battery reports no discharge (source none)", std::nullopt},
      {"only ioreg tells: energy by a charge in mAh", "", drained + ",CurrentCapacity=4000,MaxCapacity=5000",
       "on battery", "80.0 %, discharging at 18.00 W, 48.0 Wh left",
       "18.00 W, reported by the battery (source IOKit)", 80},
      {"charging, with its rate", "status=Charging,capacity=20",
       "Voltage=12000,Amperage=2000,IsCharging=true,ExternalConnected=true,CurrentCapacity=20,MaxCapacity="
       "100,"
       "AppleRawCurrentCapacity=1000,AvgTimeToFull=75",
       "external power", "20.0 %, charging at 24.00 W, 12.0 Wh left, 1 h 15 min to full",
       "unknown: no component reports its power (source PM-Package+Components)", 20},
      {"a desktop's entry", "", "BatteryInstalled=false," + drained + ",CurrentCapacity=0,MaxCapacity=0",
       "external power (the machine has no battery)", "none",
       "unknown: no component reports its power (source PM-Package+Components)", std::nullopt},
      {"an entry without voltage and charge", "", "IsCharging=false,ExternalConnected=true,Voltage=0",
       "external power (the machine has no battery)", "none",
       "unknown: no component reports its power (source PM-Package+Components)", std::nullopt},
      {"no level is no level of 0", "", drained, "on battery", "level unknown, discharging at 18.00 W",
       "18.00 W, reported by the battery (source IOKit)", std::nullopt},
      {"neither is a maximum of 0", "", drained + ",CurrentCapacity=0,MaxCapacity=0", "on battery",
       "level unknown, discharging at 18.00 W", "18.00 W, reported by the battery (source IOKit)",
       std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.title);
    const SystemTree tree;
    if (!row.supply.empty()) tree.powerSupply("BAT0", testing::attributes("type=Battery," + row.supply));
    FakeShell shell;
    shell.output("/bin/ps", "7 1 0.5 0 a\n");
    for (const char* nice : {"/usr/bin/nice", "/usr/bin/sudo"}) shell.output(nice, "System Power: 1 W\n");
    if (!row.entry.empty()) {
      shell.output("/usr/sbin/ioreg", platform::encodePropertyList(
                                          platform::PropertyValue::Array{testing::properties(row.entry)}));
    }
    const SamplingCycleResult result = SamplingCycle(shell).run();
    const std::string report = sampleReport(result, {});
    EXPECT_EQ(line(report, "Power      "), row.power);
    EXPECT_EQ(line(report, "Battery    "), row.battery);
    EXPECT_EQ(line(report, "Total      "), row.total);
    const DrainSnapshot stored = attribute(
        result.build, {.onBattery = result.onBattery, .batteryLevelKnown = result.batteryLevelKnown});
    EXPECT_EQ(stored.powerContext->batteryLevelPercent, row.storedLevel);
    EXPECT_EQ(stored.batteryStatus.has_value(), row.storedLevel.has_value());
    const auto json = encodeSample(result);
    EXPECT_EQ(json.contains("batteryStatus") && json["batteryStatus"].contains("levelPercent"),
              row.storedLevel.has_value());
  }
}

}  // namespace
}  // namespace quenzel
