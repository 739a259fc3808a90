#include <cmath>
#include <filesystem>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include "Base/ScopedResource.hpp"
#include "Platform/BatteryRegistry.hpp"
#include "Platform/EnergyCounterAccess.hpp"
#include "Platform/EnergyModelChannels.hpp"
#include "Platform/HardwareModel.hpp"
#include "Platform/Linux/ModelledHardware.hpp"
#include "Platform/SMCUserClient.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::advancedState;
using platform::ModelledHardware;
using platform::ModelledHardwareState;
using platform::PropertyDictionary;
using platform::PropertyValue;
using platform::readModelledHardware;
using Channels = std::vector<platform::EnergyModelChannel>;

Channels channels(std::initializer_list<std::pair<const char*, std::int64_t>> microjoules) {
  Channels all;
  for (const auto& [name, value] : microjoules) all.push_back({"Energy Model", name, "uJ", value});
  return all;
}

TEST(LinuxEnergyChannels, NeverGoBackWhenCountersWrapOrDisagree) {
  const SystemTree tree;
  const auto energy = platform::makeEnergyModelChannels();
  EXPECT_FALSE(energy->sample());
  EXPECT_FALSE(platform::makeSMCUserClient()->open());

  constexpr std::int64_t range = 262'143'328'850;
  const auto write = [&](std::int64_t package, std::int64_t uncore, std::int64_t dram, std::int64_t psys) {
    tree.energyZone("intel-rapl:0", "package-0", package, range);
    tree.energyZone("intel-rapl:0:0", "core", 17, range);
    tree.energyZone("intel-rapl:0:1", "uncore", uncore, range);
    tree.energyZone("intel-rapl:0:2", "dram", dram, 65'712'999'613);
    tree.energyZone("intel-rapl:1", "psys", psys, range);
    tree.energyZone("intel-rapl-mmio:0", "package-0", package, range);
  };
  const auto expected = [](std::int64_t cpu, std::int64_t gpu, std::int64_t dram, std::int64_t psys) {
    return channels(
        {{"package-0 CPU Energy", cpu}, {"package-0 GPU Energy", gpu}, {"DRAM0", dram}, {"psys", psys}});
  };
  write(262'143'000'000, 5'000, 70, 900);
  EXPECT_EQ(energy->sample(), expected(0, 0, 0, 0));
  // The package wraps: 328'850 up to the range and 671'150 beyond it, of which graphics took 400'000.
  write(671'150, 405'000, 270, 2'000'900);
  EXPECT_EQ(energy->sample(), expected(600'000, 400'000, 200, 2'000'000));
  // Graphics are read a moment later than the package, and a zone that can't be read for once keeps its
  // value.
  write(671'150, 406'000, 270, 2'000'900);
  std::filesystem::remove(tree.sys() + "/class/powercap/intel-rapl:0:2/energy_uj");
  EXPECT_EQ(energy->sample(), expected(600'000, 401'000, 200, 2'000'000));
}

/// As an ordinary user sees it: root reads everything.
TEST(LinuxEnergyChannels, TellRefusedCountersFromNone) {
  SystemTree tree;
  std::filesystem::permissions(tree.folder().path(), std::filesystem::perms(0755));
  EXPECT_EQ(platform::energyCounterRefusal(), std::nullopt);
  tree.energyZone("intel-rapl:0", "package-0", 1, 1000);
  tree.folder().write("sys/class/powercap/intel-rapl:1/name", "psys\n");  // a zone without a counter
  const std::string counter = tree.sys() + "/class/powercap/intel-rapl:0/energy_uj";
  const auto refusalAs = [&](std::filesystem::perms mode) {
    std::filesystem::permissions(counter, mode);
    const uid_t user = ::geteuid();
    EXPECT_EQ(::seteuid(user == 0 ? 65534 : user), 0);
    const auto refusal = platform::energyCounterRefusal();
    EXPECT_EQ(platform::makeEnergyModelChannels()->sample().has_value(), !refusal);
    EXPECT_EQ(::seteuid(user), 0);
    return refusal;
  };
  EXPECT_EQ(refusalAs(std::filesystem::perms(0444)), std::nullopt);
  EXPECT_EQ(refusalAs(std::filesystem::perms(0)),
            "not permitted: this machine has energy counters, but only root may read them (" + counter +
                "); to allow your group to until the next start: f='" + tree.sys() +
                "/class/powercap/intel-rapl:*/energy_uj'; sudo chgrp \"$(id -gn)\" $f && sudo chmod g+r $f");
  tree.set("QZL_MODEL_HARDWARE", "1");
  EXPECT_EQ(platform::energyCounterRefusal(), std::nullopt) << "a model stands in";
}

constexpr double fullWh = 4560 * 11.4 / 1000;  // 51.984

TEST(ModelledPower, DrawsFromTheBatteryWhatTheLoadNeeds) {
  const ModelledHardwareState fresh = advancedState(std::nullopt, {"boot", 1000, 100, 1000});
  EXPECT_DOUBLE_EQ(fresh.busyFraction, 0.1);
  EXPECT_NEAR(fresh.remainingWh, 0.8 * fullWh, 1e-9);
  const auto battery = platform::modelledBattery(fresh);
  EXPECT_EQ(*battery.deviceName + *battery.serialNumber, "Modelled batteryMODELLED");
  EXPECT_EQ(battery.levelPercent, 80);
  EXPECT_NEAR(*battery.currentMa, -(2.22 + 0.52 + 4.0) * 1e6 / 11400, 1e-6);

  // One idle hour costs 5.2 Wh, of which 0.8 in the package.
  const ModelledHardwareState later = advancedState(fresh, {"boot", 4600, 100, 9000});
  EXPECT_NEAR(later.remainingWh, 0.8 * fullWh - 5.2, 1e-9);
  EXPECT_EQ(later.packageMicrojoules, 2'880'000'000);
  EXPECT_EQ(later.memoryMicrojoules, 1'440'000'000);
  const platform::MachineActivity others[] = {
      {"next boot", 20, 5, 50}, {"boot", 20, 100, 9000}, {"boot", 9000, 90, 9000}, {"boot", 9000, 100, 8000}};
  for (const platform::MachineActivity& activity : others) {
    ModelledHardwareState restarted = advancedState(later, activity);
    EXPECT_EQ(std::exchange(restarted.activity, later.activity), activity);
    EXPECT_EQ(restarted.remainingWh, later.remainingWh) << activity.uptimeSeconds;
  }
  EXPECT_EQ(advancedState(later, {"boot", 4600.2, 120, 9020}), later);  // too soon for new figures
}

TEST(ModelledHardware, IsThereOnlyWhereAskedForAndMissing) {
  SystemTree tree;
  for (const auto& [setting, there] : {std::pair{"true", false}, std::pair{"1", true}}) {
    tree.set("QZL_MODEL_HARDWARE", setting);
    EXPECT_EQ(platform::modelledHardware(), (ModelledHardware{there, there, there})) << setting;
  }
  EXPECT_TRUE(platform::makeBatteryRegistry()->batteryProperties());
  tree.energyZone("intel-rapl:0", "package-0", 1, 1000);
  EXPECT_EQ(platform::modelledHardware(), (ModelledHardware{true, false, true}));
  tree.powerSupply("BAT0", {{"type", "Battery"}, {"capacity", "3"}});
  EXPECT_EQ(platform::modelledHardware(), (ModelledHardware{false, false, true}));
  EXPECT_FALSE(platform::modelledHardware().any());
  tree.folder().write("sys/firmware/acpi/platform_profile", "balanced\n");
  EXPECT_EQ(platform::modelledHardware(), ModelledHardware{});
}

TEST(ModelledHardware, RemembersItsStateBetweenReadings) {
  SystemTree tree;
  tree.set("QZL_MODEL_HARDWARE", "1");
  tree.processors("60 0 40 900 0 0 0 0 0 0", "100.50");
  const ModelledHardwareState first = readModelledHardware();
  EXPECT_DOUBLE_EQ(first.activity.uptimeSeconds, 100.5);
  tree.processors("160 0 140 900 0 0 0 0 0 0", "3700.50");  // an hour, every processor busy
  EXPECT_NEAR(readModelledHardware().remainingWh, first.remainingWh - 20.6, 1e-3);
  EXPECT_EQ(platform::makeEnergyModelChannels()->sample(),
            channels({{"Modelled CPU Energy", 54'000'000'000}, {"DRAM modelled", 5'760'000'000}}));
  EXPECT_EQ(platform::setModelledLowPowerMode(true), std::nullopt);
  const std::string lockFile = tree.folder() / "shared/Quenzel/modelled-hardware.lock";
  FileDescriptor lock(::open(lockFile.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);  // as any user can, for ever
  EXPECT_EQ(platform::setModelledLowPowerMode(false), "another program keeps " + lockFile + " locked");
  EXPECT_TRUE(readModelledHardware().lowPowerMode);
  lock.reset();

  tree.folder().write("shared/Quenzel/modelled-hardware.plist", "<plist><dict><key>Charging");
  EXPECT_NEAR(readModelledHardware().remainingWh, 0.8 * fullWh, 1e-6);
}

TEST(ModelledHardware, RefusesAStateThatItCantHaveWritten) {
  const auto encoded = platform::encodeModelledHardware(advancedState(std::nullopt, {"boot", 1, 2, 3}));
  const auto& list = *encoded.as<PropertyDictionary>();
  EXPECT_TRUE(platform::decodeModelledHardware(list));
  using Changes = std::vector<std::pair<std::string, PropertyValue>>;
  Changes changes = {
      {"RemainingWh", 52.0},           {"RemainingWh", -1.0},
      {"BusyFraction", 1.5},           {"UptimeSeconds", std::nan("")},
      {"BusyTicks", std::int64_t{-1}}, {"PackageMicrojoules", std::numeric_limits<std::int64_t>::max()}};
  for (const auto& [key, value] : list) changes.emplace_back(key, PropertyValue::Array{});
  for (const auto& [key, value] : changes) {
    PropertyDictionary changed = list;
    changed.insert_or_assign(key, value);
    EXPECT_FALSE(platform::decodeModelledHardware(changed)) << key;
  }
}

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
  const std::tuple<const char*, const char*, std::int64_t> signs[] = {
      {"Discharging", "-1400000", -1400}, {"Charging", "-900000", 900}, {"Not charging", "-49000", 0},
      {"Not charging", "-50000", -50},    {"Full", "60000", 60},        {"Unknown", "-7000", -7}};
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
