#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "MetricsCollectors/BatteryStatusCollector.hpp"
#include "MetricsCollectors/BatteryStatusRules.hpp"
#include "MetricsCollectors/DirectBatteryStatusReader.hpp"
#include "Platform/PropertyList.hpp"
#include "Tests/Support/FakeShell.hpp"
#include "Tests/Support/LoggedLines.hpp"
#include "Tests/Support/SystemTree.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using platform::PropertyDictionary;
using platform::PropertyValue;
using testing::FakeShell;
using JSON = nlohmann::json;

PropertyValue integer(std::int64_t value) { return {value}; }

/// A battery in which no two properties hold the same value, but for the changes.
PropertyDictionary battery(const std::string& changes = "") {
  PropertyDictionary entry = testing::properties(
      "AppleRawCurrentCapacity=4000,CurrentCapacity=81,AppleRawMaxCapacity=4900,MaxCapacity=100,"
      "Voltage=12500,Amperage=-1500,InstantAmperage=-1400,IsCharging=false,CycleCount=17,Temperature=3012,"
      "DesignCapacity=5103,NominalChargeCapacity=4950,DesignCycleCount9C=1000,Serial=F5D,"
      "BatterySerialNumber=other,DeviceName=bq40,FullyCharged=false,ExternalConnected=false,"
      "AvgTimeToFull=65535,TimeToFull=31,AvgTimeToEmpty=65535,TimeRemaining=240");
  entry.emplace("AdapterDetails", PropertyDictionary{{"Watts", integer(96)}, {"Name", "96W"}});
  for (const auto& [key, value] : testing::properties(changes)) entry.insert_or_assign(key, value);
  return entry;
}

/// What is read from it, but for the changes.
JSON batterySample(const std::string& changes = "{}") {
  JSON sample = JSON::parse(
      R"({"levelPercent":81.0,"remainingWh":50.0,"isCharging":false,"externalPowerConnected":false,
          "systemTimeRemainingMinutes":240,"dischargeWatts":18.75,"cycleCount":17,"voltageMV":12500,
          "amperageMa":-1500,"temperatureCentiC":3012,"designCapacityMah":5103,"maxCapacityMah":4900,
          "currentCapacityMah":4000,"nominalChargeCapacityMah":4950,"designCycleCount":1000,
          "serialNumber":"F5D","deviceName":"bq40","fullyCharged":false,"adapterWatts":96,
          "adapterName":"96W"})");
  sample.merge_patch(JSON::parse(changes));
  return sample;
}

JSON encoded(const BatteryStatusSample& sample) { return JSON(encodeBatteryStatusSample(sample)); }

BatteryStatusSample collected(const PropertyDictionary& properties) {
  return BatteryStatusCollector::statusFrom(platform::encodePropertyList(PropertyValue::Array{properties}));
}

TEST(BatteryStatusCollector, FillsEveryFieldFromItsKeyAndLogsTwoLines) {
  FakeShell shell;
  shell.output("/usr/sbin/ioreg", platform::encodePropertyList(PropertyValue::Array{battery()}));
  BatteryStatusSample sample;
  const std::string start = "[INFO] [BatteryStatus] ";
  EXPECT_EQ(testing::linesLoggedBy([&] { sample = BatteryStatusCollector(shell).collectStatus(); }),
            (std::vector{start + "Collecting battery status from ioreg.",
                         start + "Battery status: level=81.00%, remainingWh=50.00, charging=false, "
                                 "external=false, dischargeWatts=18.75, systemMinutes=240, cycleCount=17"}));
  EXPECT_EQ(encoded(sample), batterySample());
  EXPECT_EQ(shell.calls().at(0),
            (FakeShell::Call{"/usr/sbin/ioreg", {"-r", "-n", "AppleSmartBattery", "-a"}}));
  EXPECT_EQ(collected({}), BatteryStatusSample{});
}

TEST(BatteryStatusCollector, TakesTheFirstTimeThatApplies) {
  const std::string full = ",AvgTimeToFull=11,TimeToFull=12", left = ",AvgTimeToEmpty=13,TimeRemaining=14";
  const std::pair<std::string, std::optional<std::int64_t>> rows[] = {
      {"IsCharging=true" + left + full, 11},
      {"IsCharging=true,TimeToFull=12" + left, 12},
      {"IsCharging=true,TimeRemaining=14", 14},
      {"IsCharging=false" + full + left, 13},
      {"IsCharging=false,TimeRemaining=14" + full, 14},
      {"IsCharging=false" + full, {}},
      {"IsCharging=false,Amperage=5" + full + left, 13},
      {"Amperage=1" + left + full, 11},  // where nothing says whether it is charging
      {left.substr(1) + full, 13},
      {"IsCharging=true,AvgTimeToFull=65535,TimeToFull=-1" + left, 13},
      {"IsCharging=true,AvgTimeToFull=0" + left, 0}};
  for (const auto& [entry, minutes] : rows)
    EXPECT_EQ(collected(testing::properties(entry)).systemTimeRemainingMinutes, minutes) << entry;
}

TEST(BatteryStatusCollector, ReadsTypesAndFallsBackKeyByKey) {
  const std::pair<std::string, std::string> rows[] = {
      {"AdapterDetails=none", R"({"adapterWatts":null,"adapterName":null})"},
      {"FullyCharged=1", R"({"fullyCharged":true})"},
      {"Amperage=4294965764", R"({"amperageMa":-1532,"dischargeWatts":19.15})"},  // a gauge 32 bits wide
      {"Amperage=500", R"({"amperageMa":500,"dischargeWatts":null})"},
      {"Voltage=0", R"({"voltageMV":0,"remainingWh":null,"dischargeWatts":0.0})"},
      {"AppleRawCurrentCapacity=0", R"({"currentCapacityMah":0,"remainingWh":null})"},
      {"AppleRawCurrentCapacity=1,Voltage=1",
       R"({"currentCapacityMah":1,"voltageMV":1,"remainingWh":0.000001,"dischargeWatts":0.0015})"},
      {"CurrentCapacity=130", R"({"levelPercent":100.0})"},
      {"CurrentCapacity=-3", R"({"levelPercent":0.0})"},
      {"CurrentCapacity=1,MaxCapacity=many", R"({"levelPercent":100.0})"}};  // without a maximum, of 1
  for (const auto& [change, read] : rows) EXPECT_EQ(encoded(collected(battery(change))), batterySample(read));
  PropertyDictionary properties = battery();
  for (const char* key : {"AppleRawCurrentCapacity", "AppleRawMaxCapacity", "Amperage", "Serial"})
    properties.erase(key);
  EXPECT_EQ(encoded(collected(properties)),  // 81 mAh of 12.5 V are left
            batterySample(R"({"currentCapacityMah":81,"remainingWh":1.0125,"maxCapacityMah":100,
                              "amperageMa":-1400,"dischargeWatts":17.5,"serialNumber":"other"})"));
  BatteryStatusSample kept = collected(battery()), dropped = collected(properties);
  dropPercentTakenForCharge(kept, battery());
  dropPercentTakenForCharge(dropped, properties);
  EXPECT_EQ(encoded(kept), batterySample());
  EXPECT_FALSE(dropped.currentCapacityMah || dropped.maxCapacityMah || dropped.remainingWh);
}

TEST(BatteryStatusCollector, FailsOnWhatIsNoBattery) {
  FakeShell shell;
  shell.reply("/usr/sbin/ioreg", ShellResult{2, "", "no"});
  const auto exit = thrownBy<ShellRunnerError>([&] { BatteryStatusCollector(shell).collectStatus(); });
  EXPECT_STREQ(exit.what(), "Command exited with status 2: no");
  thrownBy<platform::PropertyListError>([] { BatteryStatusCollector::statusFrom(""); });
  for (const std::string list : {"<dict/>", "<array/>", "<array><integer>1</integer></array>"}) {
    const auto read = [&] { BatteryStatusCollector::statusFrom("<plist>" + list + "</plist>"); };
    EXPECT_STREQ(thrownBy<ShellRunnerError>(read).what(),
                 "Failed to launch command: Unable to parse AppleSmartBattery plist output.");
  }
}

TEST(BatteryStatusRules, TellABatteryAndWhetherItGivesItsLevel) {
  const std::tuple<std::string, bool, bool> rows[] = {
      {"Voltage=1", true, false},
      {"Voltage=0", false, false},
      {"CurrentCapacity=0", true, true},
      {"AppleRawCurrentCapacity=0", true, false},
      {"BatteryInstalled=false,CurrentCapacity=5,MaxCapacity=1", false, true},
      {"BatteryInstalled=true,CurrentCapacity=5,MaxCapacity=0", true, false}};
  for (const auto& [entry, isBattery, givesLevel] : rows) {
    EXPECT_EQ(describesBattery(testing::properties(entry)), isBattery) << entry;
    EXPECT_EQ(tellsLevel(testing::properties(entry)), givesLevel) << entry;
  }
}

TEST(DirectBatteryStatusReader, ResolvesTheLevel) {
  using Value = std::optional<std::int64_t>;
  // The current and the full charge as displayed, both as measured, whether it is charged, and the level.
  const std::tuple<Value, Value, Value, Value, bool, double> rows[] = {
      {85, 100, 1, 2, false, 85},  {85, 100, {}, {}, true, 100},    {40, 80, {}, {}, false, 50},
      {60, 0, {}, {}, false, 60},  {150, 100, {}, {}, false, 100},  {-1, 100, 30, 60, false, 50},
      {1, 1, 5, 10, false, 100},   {0, {}, 5, 10, false, 0},        {100, {}, 5, 10, false, 100},
      {101, {}, 5, 10, false, 50}, {{}, 100, 80, {}, false, 80},    {{}, {}, {}, 4000, false, 0},
      {{}, {}, 1, 1, false, 100},  {{}, {}, 100, 0, false, 100},    {{}, {}, 101, {}, false, 0},
      {{}, {}, -5, {}, false, 0},  {{}, {}, 5000, 4000, false, 100}};
  for (const auto& row : rows) {
    const auto& [current, full, rawCurrent, rawFull, isCharged, level] = row;
    EXPECT_EQ(DirectBatteryStatusReader::resolveLevelPercent(current, full, rawCurrent, rawFull, isCharged),
              level)
        << ::testing::PrintToString(row);
  }
}

struct FakeRegistry final : platform::BatteryRegistry {
  std::optional<PropertyDictionary> properties, description, adapter;
  /// Only what a Mac's registry is asked for.
  std::optional<PropertyDictionary> batteryProperties() override {
    if (!properties) return std::nullopt;
    PropertyDictionary named;
    for (const char* name : platform::batteryPropertyNames) {
      if (const PropertyValue* value = find(*properties, name)) named.emplace(name, *value);
    }
    return named;
  }
  std::optional<PropertyDictionary> internalBatteryDescription() override { return description; }
  std::optional<PropertyDictionary> externalAdapterDetails() override { return adapter; }
};

TEST(DirectBatteryStatusReader, JoinsPowerSourceRegistryAndAdapter) {
  auto registry = std::make_unique<FakeRegistry>();
  FakeRegistry& source = *registry;
  DirectBatteryStatusReader reader(std::move(registry));
  source.description = PropertyDictionary{{"Current Capacity", integer(50)}};
  EXPECT_EQ(reader.sample(), std::nullopt) << "without the service there is no battery";
  source.adapter = PropertyDictionary{{"Watts", integer(61)}, {"Name", "61W"}};
  // What the power source says, the registry, and what is read.
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {"Current Capacity=42,Max Capacity=84,Power Source State=Battery Power,Time to Empty=123,Is "
       "Charged=true",
       "", R"("levelPercent":100.0,"isACPowered":false,"systemTimeRemainingMinutes":123)"},
      {"Current Capacity=42,Max Capacity=84,Time to Empty=1", "ExternalConnected=true",
       R"("levelPercent":50.0,"externalPowerConnected":true,"systemTimeRemainingMinutes":1)"},
      {"Power Source State=AC Power,Time to Full Charge=0,Time to Empty=9,Is Charged=false",  // 0: not said
       "IsCharging=true,ExternalConnected=none,FullyCharged=none,AppleRawMaxCapacity=5000",
       R"("levelPercent":80.0,"maxCapacityMah":5000,"isCharging":true,"systemTimeRemainingMinutes":null,
          "isACPowered":true,"externalPowerConnected":true)"},
      {"Current Capacity=70,Time to Full Charge=1", "IsCharging=true",
       R"("levelPercent":70.0,"isCharging":true,"systemTimeRemainingMinutes":1)"}};
  for (const auto& [description, changes, read] : rows) {
    source.description = testing::properties(description);
    source.properties = battery(changes);
    EXPECT_EQ(encoded(reader.sample().value()),
              batterySample(R"({"adapterWatts":61,"adapterName":"61W",)" + read + "}"))
        << description;
  }
  source.adapter.reset();
  EXPECT_EQ(reader.sample()->adapterWatts, std::nullopt);
}

}  // namespace
}  // namespace quenzel
