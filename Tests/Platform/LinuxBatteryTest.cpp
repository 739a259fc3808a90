#include <gtest/gtest.h>

#include "Platform/BatteryRegistry.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::PropertyDictionary;
using platform::PropertyValue;
using Files = SystemTree::Files;

PropertyValue integer(std::int64_t value) { return value; }

struct Row {
  const char* title;
  std::map<std::string, Files> supplies;
  std::map<std::string, std::int64_t> numbers;
  PropertyDictionary properties;   // exactly these, the numbers and the full level
  PropertyDictionary description;  // exactly these, the type, the levels and whether it charges
};

// clang-format off
const Files chargeBattery = {
    {"type", "Battery"},            {"present", "1"},               {"status", "Discharging"},
    {"voltage_now", "12000000"},    {"current_now", "1500000"},     {"current_avg", "1400000"},
    {"charge_now", "3000000"},      {"charge_full", "4000000"},     {"charge_full_design", "5000000"},
    {"capacity", "74"},             {"cycle_count", "211"},         {"temp", "305"},
    {"time_to_empty_now", "7260"},  {"time_to_empty_avg", "7500"},  {"serial_number", "  SN 1 "},
    {"model_name", "DELL GPM03"}};

const Row rows[] = {
    {"a battery that counts charge, discharging; a mouse, an uninterruptible supply and an empty bay beside it",
     {{"BAT0", chargeBattery},
      {"AC", {{"type", "Mains"}, {"online", "0"}, {"model_name", "unplugged"}}},
      {"BAT1", {{"type", "Battery"}, {"present", "0"}, {"status", "Unknown"}}},
      {"hidpp_battery_0", {{"type", "Battery"}, {"scope", "Device"}, {"status", "Charging"}, {"online", "1"}}},
      {"apc", {{"type", "UPS"}, {"online", "1"}}}},
     {{"CurrentCapacity", 74}, {"AppleRawCurrentCapacity", 3000}, {"DesignCapacity", 5000},
      {"AppleRawMaxCapacity", 4000}, {"Amperage", -1400}, {"InstantAmperage", -1500}, {"Voltage", 12000},
      {"CycleCount", 211}, {"Temperature", 3050}, {"AvgTimeToEmpty", 125}, {"TimeRemaining", 121}},
     {{"ExternalConnected", false}, {"IsCharging", false}, {"FullyCharged", false}, {"Serial", "SN 1"},
      {"DeviceName", "DELL GPM03"}},
     {{"Power Source State", "Battery Power"}, {"Time to Empty", integer(125)}}},
    {"a battery that counts energy, charging: 25 Wh of 45 (50 when new) and 20 W at 12.5 V; 20 V at 3.25 A",
     {{"BAT0",
       {{"type", "Battery"},           {"status", "Charging"},       {"voltage_now", "12500000"},
        {"energy_now", "25000000"},    {"energy_full", "45000000"},  {"energy_full_design", "50000000"},
        {"power_now", "20000000"},     {"cycle_count", "0"},         {"voltage_min_design", "11100000"},
        {"time_to_full_now", "4500"}}},
      {"ADP1", {{"type", "Mains"}, {"online", "1"}}},
      {"ucsi-1", {{"type", "USB"}, {"online", "1"}, {"voltage_max", "20000000"}, {"current_max", "3250000"}}}},
     {{"CurrentCapacity", 56}, {"AppleRawCurrentCapacity", 2000}, {"DesignCapacity", 4000},
      {"AppleRawMaxCapacity", 3600}, {"Amperage", 1600}, {"InstantAmperage", 1600}, {"Voltage", 12500},
      {"TimeToFull", 75}, {"TimeRemaining", 75}},
     {{"ExternalConnected", true}, {"IsCharging", true}, {"FullyCharged", false},
      {"AdapterDetails", PropertyDictionary{{"Watts", integer(65)}}}},
     {{"Power Source State", "AC Power"}, {"Time to Full Charge", integer(75)}}},
    {"full, with nothing but a level and no adapter listed",
     {{"macsmc-battery", {{"type", "Battery"}, {"status", "Full"}, {"capacity", "103"}}}},
     {{"CurrentCapacity", 100}},
     {{"ExternalConnected", true}, {"IsCharging", false}, {"FullyCharged", true}},
     {{"Power Source State", "AC Power"}, {"Is Charged", true}}},
    {"two batteries as one at 12 V: 24 and 12 Wh of 36 and 18 Wh, only the first at work, with 6 W",
     {{"BAT0",
       {{"type", "Battery"},         {"status", "Discharging"},    {"voltage_now", "12000000"},
        {"energy_now", "24000000"},  {"energy_full", "36000000"},  {"power_now", "6000000"},
        {"cycle_count", "100"},      {"temp", "250"},              {"time_to_empty_now", "60"},
        {"model_name", "first"}}},
      {"BAT1",
       {{"type", "Battery"},         {"status", "Not charging"},   {"voltage_now", "6000000"},
        {"energy_now", "12000000"},  {"energy_full", "18000000"},  {"power_now", "0"},
        {"cycle_count", "120"},      {"model_name", "second"}}}},
     {{"CurrentCapacity", 67}, {"AppleRawCurrentCapacity", 3000}, {"AppleRawMaxCapacity", 4500},
      {"Amperage", -500}, {"InstantAmperage", -500}, {"Voltage", 12000}, {"CycleCount", 120}, {"Temperature", 2500}},
     {{"DeviceName", "first"}, {"ExternalConnected", false}, {"IsCharging", false}, {"FullyCharged", false}},
     {{"Power Source State", "Battery Power"}}},
};
// clang-format on

TEST(LinuxBattery, SpeaksTheRegistrysKeysAndUnits) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.title);
    const SystemTree tree;
    for (const auto& [name, attributes] : row.supplies) tree.powerSupply(name, attributes);
    PropertyDictionary properties = row.properties;
    properties.emplace("MaxCapacity", integer(100));
    properties.insert(row.numbers.begin(), row.numbers.end());
    PropertyDictionary description = row.description;
    description.insert({{"Type", "InternalBattery"},
                        {"Max Capacity", integer(100)},
                        {"Current Capacity", properties.at("CurrentCapacity")},
                        {"Is Charging", properties.at("IsCharging")}});
    const auto registry = platform::makeBatteryRegistry();
    EXPECT_EQ(registry->batteryProperties(), properties);
    EXPECT_EQ(registry->internalBatteryDescription(), description);
    const PropertyValue* const adapter = platform::find(properties, "AdapterDetails");
    EXPECT_EQ(registry->externalAdapterDetails(),
              adapter ? std::optional(*adapter->as<PropertyDictionary>()) : std::nullopt);
  }
}

TEST(LinuxBattery, KeepsTheSignThatTheStatusTells) {
  const struct {
    const char* status;
    const char* current;
    std::int64_t amperage;
  } signs[] = {{"Discharging", "-1400000", -1400},
               {"Charging", "-900000", 900},
               {"Not charging", "-49000", 0},
               {"Full", "60000", 60},
               {"Unknown", "-7000", -7}};
  for (const auto& row : signs) {
    const SystemTree tree;
    Files battery = chargeBattery;
    battery["status"] = row.status;
    battery["current_avg"] = row.current;
    tree.powerSupply("BAT0", battery);
    EXPECT_EQ(platform::makeBatteryRegistry()->batteryProperties().value().at("Amperage"),
              integer(row.amperage))
        << row.status;
  }
}

TEST(LinuxBattery, LeavesOutWhatNobodyToldOrCanBeTrue) {
  const SystemTree tree;
  tree.powerSupply("BAT0", {{"type", "Battery"},
                            {"status", "Unknown"},
                            {"charge_now", "3000000"},
                            {"charge_full", "1000000000001"},
                            {"temp", "9223372036854775807"}});
  const auto registry = platform::makeBatteryRegistry();
  EXPECT_EQ(registry->batteryProperties(),
            (PropertyDictionary{
                {"AppleRawCurrentCapacity", integer(3000)}, {"IsCharging", false}, {"FullyCharged", false}}));
  EXPECT_EQ(registry->internalBatteryDescription(),
            (PropertyDictionary{{"Type", "InternalBattery"}, {"Is Charging", false}}));
  tree.powerSupply("BAT1", {{"type", "Battery"}, {"capacity", "50"}});  // half of it is not half of both
  EXPECT_FALSE(registry->batteryProperties().value().contains("CurrentCapacity"));
}

TEST(LinuxBattery, IsAbsentWithoutOne) {
  const SystemTree tree;
  tree.powerSupply("AC", {{"type", "Mains"}, {"online", "1"}, {"model_name", "Brick"}});
  const auto registry = platform::makeBatteryRegistry();
  EXPECT_FALSE(registry->batteryProperties());
  EXPECT_FALSE(registry->internalBatteryDescription());
  EXPECT_EQ(registry->externalAdapterDetails(), (PropertyDictionary{{"Name", "Brick"}}));
}

}  // namespace
}  // namespace quenzel::testing
