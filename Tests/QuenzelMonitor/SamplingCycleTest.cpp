#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Engine/Attribution.hpp"
#include "Platform/PropertyList.hpp"
#include "QuenzelMonitor/Views/SampleReport.hpp"
#include "Tests/Support/FakeShell.hpp"
#include "Tests/Support/LoggedLines.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel {
namespace {

using namespace ::testing;
using namespace testing;
using nlohmann::literals::operator""_json_pointer;

TEST(SamplingCycle, GivesOneAnswerAboutTheBattery) {
  const std::string drained = "Voltage=12000,Amperage=-1500,ExternalConnected=false",
                    plugged = "Voltage=12000,ExternalConnected=true";
  const std::string by18 = "18.00 W, reported by the battery (source IOKit)",
                    noDischarge = "unknown: the battery reports no discharge (source none)",
                    noComponent = "unknown: no component reports its power (source PM-Package+Components)",
                    noBattery = "external power (the machine has no battery)";
  const std::string never =
      "  package power: powermetrics reports no CPU, GPU or ANE power on this machine\n"
      "  display power: the System Management Controller gives no reading above 0 W\n"
      "  USB power: the System Management Controller gives no reading above 0 W\n";
  struct Row {
    const char* title;
    std::string supply;  // of the kernel, which the direct reader sees
    std::string entry;   // that ioreg prints; nothing: it fails
    std::string power, battery, total;
    std::optional<double> storedLevel;
    std::string note = "";  // of what is not available, beside what never is
  };
  const Row rows[] = {
      {"the total comes from the battery, whatever the kernel says of the adapter", "status=Full,capacity=90",
       drained + ",CurrentCapacity=81,MaxCapacity=100", "on battery", "81.0 %, discharging at 18.00 W", by18,
       81},
      {"only the kernel tells", "status=Discharging,capacity=90", "", "on battery", "could not be read",
       noDischarge, std::nullopt,
       "  battery: Failed to launch command: No reply is set for /usr/sbin/ioreg.\n"},
      {"only ioreg tells: energy by a charge in mAh", "", drained + ",CurrentCapacity=4000,MaxCapacity=5000",
       "on battery", "80.0 %, discharging at 18.00 W, 48.0 Wh left", by18, 80},
      {"charging, with its rate", "status=Charging,capacity=20",
       plugged +
           ",Amperage=2000,IsCharging=true,CurrentCapacity=20,MaxCapacity=100,AppleRawCurrentCapacity=1000,"
           "AvgTimeToFull=75",
       "external power", "20.0 %, charging at 24.00 W, 12.0 Wh left, 1 h 15 min to full", noComponent, 20},
      {"a desktop's entry, whatever the kernel says", "status=Full,capacity=90",
       "BatteryInstalled=false," + drained + ",CurrentCapacity=0,MaxCapacity=0", noBattery, "none",
       noComponent, std::nullopt, "  battery: this machine has none\n"},
      {"no level is no level of 0", "", drained, "on battery", "level unknown, discharging at 18.00 W", by18,
       std::nullopt}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.title);
    const SystemTree tree;
    if (!row.supply.empty()) tree.powerSupply("BAT0", testing::attributes("type=Battery," + row.supply));
    FakeShell shell;
    shell.output("/bin/ps", "7 1 0.5 0 a\n8 1 0,5 0 b\n");
    for (const char* nice : {"/usr/bin/nice", "/usr/bin/sudo"}) shell.output(nice, "System Power: 1 W\n");
    const platform::PropertyValue::Array entries{testing::properties(row.entry)};
    if (!row.entry.empty()) shell.output("/usr/sbin/ioreg", platform::encodePropertyList(entries));
    const SamplingCycleResult result = SamplingCycle(shell).run();
    EXPECT_THAT(
        sampleReport(result, {}),
        AllOf(HasSubstr(fmt::format("\n  Power      {}\n  Battery    {}\n  Total      {}\n", row.power,
                                    row.battery, row.total)),
              HasSubstr("available:\n  processes: rows of ps that can't be read: 1\n" + row.note + never)));
    const DrainSnapshot stored = attribute(
        result.build, {.onBattery = result.onBattery, .batteryLevelKnown = result.batteryLevelKnown});
    EXPECT_EQ(stored.powerContext->batteryLevelPercent, row.storedLevel);
    EXPECT_EQ(stored.batteryStatus.has_value(), row.storedLevel.has_value());
    EXPECT_EQ(encodeSample(result).contains("/batteryStatus/levelPercent"_json_pointer),
              row.storedLevel.has_value());
  }
  SystemTree modelled;
  modelled.set("QZL_MODEL_HARDWARE", "1");
  SamplingCycleResult whole;
  const auto logged = testing::linesLoggedBy(
      [&] { whole = SamplingCycle(FakeShell().output("/bin/ps", "7 1 0.5 0 a\n")).run(); });
  EXPECT_THAT(logged, Contains("[INFO] [SamplingCycle] the figures of this cycle are modelled, not measured: "
                               "battery power counters"));
  EXPECT_EQ(whole.unavailable.at(0).source, "powermetrics") << "every row of ps is readable";
}

}  // namespace
}  // namespace quenzel
