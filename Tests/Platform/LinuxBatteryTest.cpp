#include <gtest/gtest.h>

#include "Platform/BatteryRegistry.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::PropertyDictionary;
using platform::PropertyValue;
using Supplies = std::map<std::string, SystemTree::Files>;

PropertyValue integer(std::int64_t value) { return value; }

const SystemTree::Files chargeBattery = {{"type", "Battery"},
                                         {"present", "1"},
                                         {"status", "Discharging"},
                                         {"voltage_now", "12000000"},
                                         {"charge_now", "3000000"},
                                         {"charge_full", "4000000"},
                                         {"charge_full_design", "5000000"},
                                         {"current_now", "1500000"},
                                         {"current_avg", "1400000"},
                                         {"capacity", "74"},
                                         {"cycle_count", "211"},
                                         {"temp", "305"},
                                         {"time_to_empty_now", "7260"},
                                         {"time_to_empty_avg", "7500"},
                                         {"serial_number", "  SN 1 "},
                                         {"model_name", "DELL GPM03"}};

SystemTree::Files with(SystemTree::Files files, const SystemTree::Files& changes) {
  for (const auto& [name, value] : changes) files[name] = value;
  return files;
}

struct Row {
  const char* title;
  Supplies supplies;
  PropertyDictionary properties;   // exactly these
  PropertyDictionary description;  // exactly these, with the ones that every battery has
};

const Row rows[] = {
    {"a battery that counts charge, discharging; a mouse, an uninterruptible supply and an empty bay beside "
     "it",
     {{"BAT0", chargeBattery},
      {"AC", {{"type", "Mains"}, {"online", "0"}, {"model_name", "unplugged"}}},
      {"BAT1", {{"type", "Battery"}, {"present", "0"}, {"status", "Unknown"}}},
      {"hidpp_battery_0",
       {{"type", "Battery"}, {"scope", "Device"}, {"status", "Charging"}, {"online", "1"}}},
      {"apc", {{"type", "UPS"}, {"online", "1"}}}},
     {{"CurrentCapacity", integer(74)},
      {"AppleRawCurrentCapacity", integer(3000)},
      {"AppleRawMaxCapacity", integer(4000)},
      {"DesignCapacity", integer(5000)},
      {"Voltage", integer(12000)},
      {"Amperage", integer(-1400)},
      {"InstantAmperage", integer(-1500)},
      {"IsCharging", false},
      {"FullyCharged", false},
      {"ExternalConnected", false},
      {"CycleCount", integer(211)},
      {"Temperature", integer(3050)},
      {"Serial", "SN 1"},
      {"DeviceName", "DELL GPM03"},
      {"AvgTimeToEmpty", integer(125)},
      {"TimeRemaining", integer(121)}},
     {{"Current Capacity", integer(74)},
      {"Is Charging", false},
      {"Power Source State", "Battery Power"},
      {"Time to Empty", integer(125)}}},
    {"a battery that counts energy, charging: 25 Wh of 45 (50 when new) and 20 W at 12.5 V; 20 V at 3.25 A",
     {{"BAT0",
       {{"type", "Battery"},
        {"status", "Charging"},
        {"voltage_now", "12500000"},
        {"voltage_min_design", "11100000"},
        {"energy_now", "25000000"},
        {"energy_full", "45000000"},
        {"energy_full_design", "50000000"},
        {"power_now", "20000000"},
        {"cycle_count", "0"},
        {"time_to_full_now", "4500"}}},
      {"ADP1", {{"type", "Mains"}, {"online", "1"}}},
      {"ucsi-1",
       {{"type", "USB"}, {"online", "1"}, {"voltage_max", "20000000"}, {"current_max", "3250000"}}}},
     {{"CurrentCapacity", integer(56)},
      {"AppleRawCurrentCapacity", integer(2000)},
      {"AppleRawMaxCapacity", integer(3600)},
      {"DesignCapacity", integer(4000)},
      {"Voltage", integer(12500)},
      {"Amperage", integer(1600)},
      {"InstantAmperage", integer(1600)},
      {"IsCharging", true},
      {"FullyCharged", false},
      {"ExternalConnected", true},
      {"TimeToFull", integer(75)},
      {"TimeRemaining", integer(75)},
      {"AdapterDetails", PropertyDictionary{{"Watts", integer(65)}}}},
     {{"Current Capacity", integer(56)},
      {"Is Charging", true},
      {"Power Source State", "AC Power"},
      {"Time to Full Charge", integer(75)}}},
    {"full, with nothing but a level and no adapter listed",
     {{"macsmc-battery", {{"type", "Battery"}, {"status", "Full"}, {"capacity", "103"}}}},
     {{"CurrentCapacity", integer(100)},
      {"IsCharging", false},
      {"FullyCharged", true},
      {"ExternalConnected", true}},
     {{"Current Capacity", integer(100)},
      {"Is Charging", false},
      {"Is Charged", true},
      {"Power Source State", "AC Power"}}},
    {"two batteries as one at 12 V: 24 and 12 Wh of 36 and 18 Wh, only the first at work, with 6 W",
     {{"BAT0", with({{"type", "Battery"}, {"status", "Discharging"}, {"voltage_now", "12000000"}},
                    {{"energy_now", "24000000"},
                     {"energy_full", "36000000"},
                     {"power_now", "6000000"},
                     {"cycle_count", "100"},
                     {"temp", "250"},
                     {"model_name", "first"},
                     {"time_to_empty_now", "60"}})},
      {"BAT1", with({{"type", "Battery"}, {"status", "Not charging"}, {"voltage_now", "6000000"}},
                    {{"energy_now", "12000000"},
                     {"energy_full", "18000000"},
                     {"power_now", "0"},
                     {"cycle_count", "120"},
                     {"model_name", "second"}})}},
     {{"CurrentCapacity", integer(67)},
      {"AppleRawCurrentCapacity", integer(3000)},
      {"AppleRawMaxCapacity", integer(4500)},
      {"Voltage", integer(12000)},
      {"Amperage", integer(-500)},
      {"InstantAmperage", integer(-500)},
      {"IsCharging", false},
      {"FullyCharged", false},
      {"ExternalConnected", false},
      {"CycleCount", integer(120)},
      {"Temperature", integer(2500)},
      {"DeviceName", "first"}},
     {{"Current Capacity", integer(67)}, {"Is Charging", false}, {"Power Source State", "Battery Power"}}},
};

TEST(LinuxBattery, SpeaksTheRegistrysKeysAndUnits) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.title);
    const SystemTree tree;
    for (const auto& [name, attributes] : row.supplies) tree.powerSupply(name, attributes);
    PropertyDictionary properties = row.properties;
    properties.emplace("MaxCapacity", integer(100));
    PropertyDictionary description = row.description;
    description.emplace("Type", "InternalBattery");
    description.emplace("Max Capacity", integer(100));

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
               {"Discharging", "1400000", -1400},
               {"Charging", "-900000", 900},
               {"Not charging", "0", 0},
               {"Unknown", "-7000", -7}};
  for (const auto& row : signs) {
    const SystemTree tree;
    tree.powerSupply("BAT0", with(chargeBattery, {{"status", row.status}, {"current_avg", row.current}}));
    const auto properties = platform::makeBatteryRegistry()->batteryProperties();
    ASSERT_TRUE(properties);
    EXPECT_EQ(properties->at("Amperage"), integer(row.amperage)) << row.status << ' ' << row.current;
  }
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
