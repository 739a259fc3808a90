#include <gtest/gtest.h>

#include "Platform/BatteryRegistry.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::PropertyDictionary;
using platform::PropertyValue;

const std::string chargeBattery =
    "type=Battery,present=1,status=Discharging,voltage_now=12000000,current_now=1500000,current_avg=1400000,"
    "charge_now=3000000,charge_full=4000000,charge_full_design=5000000,capacity=74,cycle_count=211,temp=305,"
    "serial_number=  SN 1 ,model_name=DELL GPM03,charge_counter=77,voltage_min_design=77";

struct Row {
  std::map<std::string, std::string> supplies;
  std::string properties;        // exactly these, and the adapter
  std::string description = "";  // exactly these, the type, the levels and whether it charges
  std::string adapter = "";
};

const Row rows[] = {
    // A battery that counts charge, discharging: 3 Ah at 1.5 A, at 1.4 A on average; beside it a mouse, an
    // uninterruptible supply, and three empty bays.
    {{{"BAT0", chargeBattery},
      {"AC", "type=Mains,online=0,model_name=unplugged"},
      {"BAT1", "type=Battery,present=0,status=Unknown,capacity=50"},
      {"BAT2", "type=Battery,status=Charging,cycle_count=7,charge_full=4000000"},
      {"BAT3", "type=Battery,status=Full,voltage_now=0,power_now=0"},
      {"hidpp_battery_0", "type=Battery,scope=Device,status=Charging,online=1"},
      {"apc", "type=UPS,online=1"}},
     "CurrentCapacity=74,AppleRawCurrentCapacity=3000,AppleRawMaxCapacity=4000,DesignCapacity=5000,"
     "Amperage=-1400,InstantAmperage=-1500,Voltage=12000,CycleCount=211,Temperature=3050,AvgTimeToEmpty=128,"
     "TimeRemaining=120,ExternalConnected=false,IsCharging=false,FullyCharged=false,Serial=SN 1,"
     "DeviceName=DELL GPM03",
     "Power Source State=Battery Power,Time to Empty=128"},
    // The driver's own times, in seconds, go before what the charge tells.
    {{{"BAT0",
       "type=Battery,status=Discharging,charge_now=3000000,current_now=1500000,time_to_empty_now=7260,"
       "time_to_empty_avg=7500"}},
     "AppleRawCurrentCapacity=3000,AppleRawMaxCapacity=unknown,Amperage=-1500,InstantAmperage=-1500,"
     "AvgTimeToEmpty=125,TimeRemaining=121,ExternalConnected=false,IsCharging=false,FullyCharged=false",
     "Power Source State=Battery Power,Time to Empty=125"},
    // A battery that counts energy, charging: 25 Wh of 45 (50 when new) and 20 W at 12.5 V; 20 V at 3.25 A;
    // the driver says that its times are unknown.
    {{{"BAT0",
       "type=Battery,status=Charging,voltage_now=12500000,energy_now=25000000,energy_full=45000000,"
       "energy_full_design=50000000,power_now=20000000,cycle_count=0,voltage_min_design=11100000,"
       "time_to_full_now=0,time_to_full_avg=3932100"},
      {"ADP1", "type=Mains,online=1"},
      {"ucsi-1", "type=USB,online=1,voltage_max=20000000,current_max=3250000"}},
     "CurrentCapacity=56,AppleRawCurrentCapacity=2000,AppleRawMaxCapacity=3600,DesignCapacity=4000,"
     "Amperage=1600,InstantAmperage=1600,Voltage=12500,AvgTimeToFull=60,TimeToFull=60,TimeRemaining=60,"
     "ExternalConnected=true,IsCharging=true,FullyCharged=false",
     "Power Source State=AC Power,Time to Full Charge=60",
     "Watts=65"},
    // Full, with nothing but a level and no adapter listed: percent are no charge.
    {{{"macsmc-battery", "type=Battery,status=Full,capacity=103"}},
     "CurrentCapacity=100,AppleRawCurrentCapacity=unknown,AppleRawMaxCapacity=unknown,ExternalConnected=true,"
     "IsCharging=false,FullyCharged=true",
     "Power Source State=AC Power,Is Charged=true"},
    // The charge by the level alone: 30 % of 4 Ah; charging, it misses 2.8 Ah at 1.4 A on average.
    {{{"BAT0", "type=Battery,status=Charging,capacity=30,charge_full=4000000,current_avg=1400000"}},
     "CurrentCapacity=30,AppleRawCurrentCapacity=1200,AppleRawMaxCapacity=4000,Amperage=1400,"
     "AvgTimeToFull=120,TimeToFull=120,TimeRemaining=120,ExternalConnected=true,IsCharging=true,"
     "FullyCharged=false",
     "Power Source State=AC Power,Time to Full Charge=120"},
    // The charge by its counter; a current so low that no gauge could tell the time.
    {{{"BAT0", "type=Battery,status=Discharging,capacity=30,charge_counter=1300000,current_now=1000"}},
     "CurrentCapacity=30,AppleRawCurrentCapacity=1300,AppleRawMaxCapacity=unknown,Amperage=-1,"
     "InstantAmperage=-1,ExternalConnected=false,IsCharging=false,FullyCharged=false",
     "Power Source State=Battery Power"},
    // Two batteries as one at 12 V: 24 and 12 Wh of 36 and 18 Wh, only the first at work, with 6 W.
    {{{"BAT0",
       "type=Battery,status=Discharging,voltage_now=12000000,energy_now=24000000,energy_full=36000000,"
       "power_now=6000000,cycle_count=100,temp=250,time_to_empty_now=60,model_name=first"},
      {"BAT1",
       "type=Battery,status=Not charging,voltage_now=6000000,energy_now=12000000,energy_full=18000000,"
       "power_now=0,cycle_count=120,model_name=second"}},
     "CurrentCapacity=67,AppleRawCurrentCapacity=3000,AppleRawMaxCapacity=4500,Amperage=-500,"
     "InstantAmperage=-500,Voltage=12000,CycleCount=120,Temperature=2500,DeviceName=first,AvgTimeToEmpty=360,"
     "TimeRemaining=360,ExternalConnected=false,IsCharging=false,FullyCharged=false",
     "Power Source State=Battery Power,Time to Empty=360"},
    // Two batteries that tell nothing but their levels.
    {{{"BAT0", "type=Battery,status=Full,capacity=40"}, {"BAT1", "type=Battery,status=Full,capacity=61"}},
     "CurrentCapacity=50,AppleRawCurrentCapacity=unknown,AppleRawMaxCapacity=unknown,ExternalConnected=true,"
     "IsCharging=false,FullyCharged=true",
     "Power Source State=AC Power,Is Charged=true"},
    // Neither a level nor what can be true: half of the charge is not half of both batteries'.
    {{{"BAT0",
       "type=Battery,status=Unknown,charge_now=3000000,charge_full=1000000000001,temp=9223372036854775807"},
      {"BAT1", "type=Battery,capacity=50"}},
     "AppleRawCurrentCapacity=unknown,AppleRawMaxCapacity=unknown,IsCharging=false,FullyCharged=false"},
};

TEST(LinuxBattery, SpeaksTheRegistrysKeysAndUnits) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.properties);
    const SystemTree tree;
    for (const auto& [name, text] : row.supplies) tree.powerSupply(name, attributes(text));
    PropertyDictionary expected = properties(row.properties);
    PropertyDictionary description = properties(row.description);
    description.insert({{"Type", "InternalBattery"}, {"Is Charging", expected.at("IsCharging")}});
    if (expected.contains("CurrentCapacity")) {
      expected.emplace("MaxCapacity", std::int64_t{100});
      description.insert(
          {{"Current Capacity", expected.at("CurrentCapacity")}, {"Max Capacity", std::int64_t{100}}});
    }
    const auto adapter = row.adapter.empty() ? std::nullopt : std::optional(properties(row.adapter));
    if (adapter) expected.emplace("AdapterDetails", *adapter);
    const auto registry = platform::makeBatteryRegistry();
    EXPECT_EQ(registry->batteryProperties(), expected);
    EXPECT_EQ(registry->internalBatteryDescription(), description);
    EXPECT_EQ(registry->externalAdapterDetails(), adapter);
  }
}

TEST(LinuxBattery, KeepsTheSignThatTheStatusTells) {
  const std::tuple<const char*, const char*, std::int64_t> signs[] = {{"Discharging", "-1400000", -1400},
                                                                      {"Charging", "-900000", 900},
                                                                      {"Not charging", "-49000", 0},
                                                                      {"Not charging", "-50000", -50},
                                                                      {"Full", "49000", 0},
                                                                      {"Full", "60000", 60},
                                                                      {"Unknown", "-7000", -7}};
  for (const auto& [status, current, amperage] : signs) {
    const SystemTree tree;
    tree.powerSupply("BAT0", attributes(chargeBattery));
    tree.powerSupply("BAT0", {{"status", status}, {"current_avg", current}});
    const auto found = platform::makeBatteryRegistry()->batteryProperties().value().at("Amperage");
    EXPECT_EQ(found, PropertyValue(amperage)) << status;
  }
}

TEST(LinuxBattery, IsAbsentWithoutOne) {
  const SystemTree tree;
  tree.powerSupply("AC", {{"type", "Mains"}, {"online", "1"}, {"model_name", "Brick"}});
  tree.powerSupply("BAT0", {{"type", "Battery"}, {"status", "Unknown"}});
  const auto registry = platform::makeBatteryRegistry();
  EXPECT_FALSE(registry->batteryProperties());
  EXPECT_FALSE(registry->internalBatteryDescription());
  EXPECT_EQ(registry->externalAdapterDetails(), (PropertyDictionary{{"Name", "Brick"}}));
}

}  // namespace
}  // namespace quenzel::testing
