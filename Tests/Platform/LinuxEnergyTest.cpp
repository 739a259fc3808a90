#include <cmath>
#include <filesystem>

#include <gtest/gtest.h>

#include "Platform/BatteryRegistry.hpp"
#include "Platform/EnergyModelChannels.hpp"
#include "Platform/HardwareModel.hpp"
#include "Platform/Linux/ModelledHardware.hpp"
#include "Platform/SMCUserClient.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::EnergyModelChannel;
using platform::MachineActivity;
using platform::ModelledHardware;
using platform::ModelledHardwareState;
using Channels = std::vector<EnergyModelChannel>;

EnergyModelChannel channel(const char* name, std::int64_t microjoules) {
  return {"Energy Model", name, "uJ", microjoules};
}

TEST(LinuxEnergyChannels, NeverGoBackWhenCountersWrapOrDisagree) {
  const SystemTree tree;
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
    return Channels{channel("package-0 CPU Energy", cpu), channel("package-0 GPU Energy", gpu),
                    channel("DRAM0", dram), channel("psys", psys)};
  };
  const auto energy = platform::makeEnergyModelChannels();
  write(262'143'000'000, 5'000, 70, 900);
  EXPECT_EQ(energy->sample(), expected(0, 0, 0, 0));
  // The package wraps: 328'850 up to the range and 671'150 beyond it, of which graphics took 400'000.
  write(671'150, 405'000, 270, 2'000'900);
  EXPECT_EQ(energy->sample(), expected(600'000, 400'000, 200, 2'000'000));
  // Graphics are read a moment later than the package.
  write(671'150, 406'000, 270, 2'000'900);
  EXPECT_EQ(energy->sample(), expected(600'000, 401'000, 200, 2'000'000));
  // A zone that can't be read for once keeps its value.
  std::filesystem::remove(tree.sys() + "/class/powercap/intel-rapl:0:2/energy_uj");
  EXPECT_EQ(energy->sample(), expected(600'000, 401'000, 200, 2'000'000));
}

TEST(LinuxEnergyChannels, AreAbsentWithoutCounters) {
  const SystemTree tree;
  EXPECT_FALSE(platform::makeEnergyModelChannels()->sample());
  EXPECT_FALSE(platform::makeSMCUserClient()->open());
}

constexpr double fullWh = 4560 * 11.4 / 1000;  // 51.984

TEST(ModelledPower, DrawsFromTheBatteryWhatTheLoadNeeds) {
  EXPECT_DOUBLE_EQ(platform::modelledPackageWatts(0), 0.8);
  EXPECT_DOUBLE_EQ(platform::modelledPackageWatts(1), 15.0);
  EXPECT_DOUBLE_EQ(platform::modelledSystemWatts(0.5), 7.9 + 1.0 + 4.0);

  const ModelledHardwareState fresh = platform::advancedState(std::nullopt, {"boot", 1000, 100, 1000});
  EXPECT_DOUBLE_EQ(fresh.busyFraction, 0.1);
  EXPECT_NEAR(fresh.remainingWh, 0.8 * fullWh, 1e-9);
  const auto battery = platform::modelledBattery(fresh);
  EXPECT_EQ(battery.deviceName, "Modelled battery");
  EXPECT_EQ(battery.serialNumber, "MODELLED");
  EXPECT_EQ(battery.levelPercent, 80);
  EXPECT_NEAR(*battery.currentMa, -(2.22 + 0.52 + 4.0) * 1e6 / 11400, 1e-6);

  // One idle hour costs 5.2 Wh, of which 0.8 in the package.
  const ModelledHardwareState later = platform::advancedState(fresh, {"boot", 4600, 100, 9000});
  EXPECT_NEAR(later.remainingWh, 0.8 * fullWh - 5.2, 1e-9);
  EXPECT_EQ(later.packageMicrojoules, 2'880'000'000);
  EXPECT_EQ(later.memoryMicrojoules, 1'440'000'000);

  const MachineActivity restarts[] = {
      {"next boot", 20, 5, 50}, {"boot", 20, 100, 9000}, {"boot", 9000, 90, 9000}, {"boot", 9000, 100, 8000}};
  for (const MachineActivity& activity : restarts) {
    const ModelledHardwareState restarted = platform::advancedState(later, activity);
    EXPECT_EQ(restarted.activity, activity);
    EXPECT_EQ(restarted.remainingWh, later.remainingWh);
    EXPECT_EQ(restarted.packageMicrojoules, later.packageMicrojoules);
  }
  EXPECT_EQ(platform::advancedState(later, {"boot", 4600.2, 120, 9020}), later);  // too soon for new figures
}

TEST(ModelledPower, ChargesWhenTheBatteryRunsOut) {
  const ModelledHardwareState fresh = platform::advancedState(std::nullopt, {"boot", 0, 0, 0});
  const ModelledHardwareState empty =
      platform::advancedState(fresh, {"boot", 36'000, 1000, 1000});  // ten hours at 20.6 W
  EXPECT_NEAR(empty.remainingWh, 0.05 * fullWh, 1e-9);
  EXPECT_TRUE(empty.charging);
  const ModelledHardwareState half = platform::advancedState(empty, {"boot", 37'800, 2000, 2000});
  EXPECT_NEAR(half.remainingWh, 0.05 * fullWh + 15, 1e-9);
  EXPECT_EQ(platform::modelledBattery(half).state, platform::BatteryState::charging);
  EXPECT_GT(*platform::modelledBattery(half).currentMa, 0);
  EXPECT_FALSE(platform::advancedState(half, {"boot", 50'000, 2000, 3000}).charging);
}

TEST(ModelledHardware, IsThereOnlyWhereAskedForAndMissing) {
  SystemTree tree;
  EXPECT_EQ(platform::modelledHardware(), ModelledHardware{});
  tree.set("QZL_MODEL_HARDWARE", "true");
  EXPECT_EQ(platform::modelledHardware(), ModelledHardware{});
  tree.set("QZL_MODEL_HARDWARE", "1");
  EXPECT_EQ(platform::modelledHardware(), (ModelledHardware{true, true}));
  EXPECT_TRUE(platform::makeBatteryRegistry()->batteryProperties());
  tree.energyZone("intel-rapl:0", "package-0", 1, 1000);
  EXPECT_EQ(platform::modelledHardware(), (ModelledHardware{true, false}));
  tree.powerSupply("BAT0", {{"type", "Battery"}, {"capacity", "3"}});
  EXPECT_EQ(platform::modelledHardware(), ModelledHardware{});
}

TEST(ModelledHardware, RemembersItsStateBetweenReadings) {
  SystemTree tree;
  tree.set("QZL_MODEL_HARDWARE", "1");
  tree.processors("60 0 40 900 0 0 0 0 0 0", "100.50");
  const ModelledHardwareState first = platform::readModelledHardware();
  EXPECT_DOUBLE_EQ(first.activity.uptimeSeconds, 100.5);
  tree.processors("160 0 140 900 0 0 0 0 0 0", "3700.50");  // an hour, every processor busy
  EXPECT_NEAR(platform::readModelledHardware().remainingWh, first.remainingWh - 20.6, 1e-3);
  EXPECT_EQ(
      platform::makeEnergyModelChannels()->sample(),
      (Channels{channel("Modelled CPU Energy", 54'000'000'000), channel("DRAM modelled", 5'760'000'000)}));

  EXPECT_TRUE(platform::setModelledLowPowerMode(true));
  EXPECT_TRUE(platform::readModelledHardware().lowPowerMode);

  tree.folder().write("shared/Quenzel/modelled-hardware.plist", "<plist><dict><key>Charging");
  EXPECT_NEAR(platform::readModelledHardware().remainingWh, 0.8 * fullWh, 1e-6);

  tree.folder().write("file", "");
  tree.set("QZL_SHARED_DIRECTORY", tree.folder() / "file");  // nothing can be saved there
  EXPECT_NEAR(platform::readModelledHardware().remainingWh, 0.8 * fullWh, 1e-6);
  EXPECT_FALSE(platform::setModelledLowPowerMode(true));
}

TEST(ModelledHardware, RefusesAStateThatItCantHaveWritten) {
  const auto encoded =
      platform::encodeModelledHardware(platform::advancedState(std::nullopt, {"boot", 1, 2, 3}));
  const auto& list = *encoded.as<platform::PropertyDictionary>();
  EXPECT_TRUE(platform::decodeModelledHardware(list));
  for (const auto& [key, value] : list) {
    platform::PropertyDictionary without = list;
    without.erase(key);
    EXPECT_FALSE(platform::decodeModelledHardware(without)) << key;
  }
  const std::pair<const char*, platform::PropertyValue> wrong[] = {
      {"RemainingWh", 52.0},           {"RemainingWh", -1.0},           {"BusyFraction", 1.5},
      {"UptimeSeconds", std::nan("")}, {"BusyTicks", std::int64_t{-1}}, {"Charging", "yes"}};
  for (const auto& [key, value] : wrong) {
    platform::PropertyDictionary changed = list;
    changed.insert_or_assign(key, value);
    EXPECT_FALSE(platform::decodeModelledHardware(changed)) << key;
  }
}

}  // namespace
}  // namespace quenzel::testing
