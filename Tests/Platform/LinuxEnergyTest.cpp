#include <cmath>
#include <filesystem>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/BatteryRegistry.hpp"
#include "Platform/EnergyCounterAccess.hpp"
#include "Platform/EnergyModelChannels.hpp"
#include "Platform/FileDescriptor.hpp"
#include "Platform/HardwareModel.hpp"
#include "Platform/Linux/ModelledHardware.hpp"
#include "Platform/SMCUserClient.hpp"
#include "Platform/SharedDirectory.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::advancedState;
using platform::ModelledHardware;
using platform::ModelledHardwareState;
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

TEST(ModelledPower, ChargesWhenTheBatteryRunsOut) {
  const ModelledHardwareState fresh = advancedState(std::nullopt, {"boot", 0, 0, 0});
  const ModelledHardwareState empty = advancedState(fresh, {"boot", 36'000, 1000, 1000});  // 10 h at 20.6 W
  EXPECT_NEAR(empty.remainingWh, 0.05 * fullWh, 1e-9);
  EXPECT_TRUE(empty.charging);
  const ModelledHardwareState half = advancedState(empty, {"boot", 37'800, 2000, 2000});
  EXPECT_NEAR(half.remainingWh, 0.05 * fullWh + 15, 1e-9);
  EXPECT_EQ(platform::modelledBattery(half).state, platform::BatteryState::charging);
  EXPECT_GT(*platform::modelledBattery(half).currentMa, 0);
  EXPECT_FALSE(advancedState(half, {"boot", 50'000, 2000, 3000}).charging);
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

TEST(SharedDirectory, IsOpenToAllWhoeverCreatesIt) {
  const TemporaryDirectory folder;
  const mode_t umaskBefore = ::umask(077);
  EXPECT_TRUE(platform::createSharedDataDirectory(folder / "above/shared"));
  ::umask(umaskBefore);
  EXPECT_EQ(modeOf(folder / "above/shared"), 0777u);
  EXPECT_TRUE(platform::createSharedDataDirectory(folder / "above"));
  EXPECT_EQ(modeOf(folder / "above"), 0700u) << "not as its owner left it";
  EXPECT_FALSE(platform::createSharedDataDirectory(folder.write("file", "")));
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
  platform::FileDescriptor lock(::open(lockFile.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);  // as any user can, for ever
  EXPECT_EQ(platform::setModelledLowPowerMode(false), "another program keeps " + lockFile + " locked");
  EXPECT_TRUE(readModelledHardware().lowPowerMode);
  lock.reset();

  tree.folder().write("shared/Quenzel/modelled-hardware.plist", "<plist><dict><key>Charging");
  EXPECT_NEAR(readModelledHardware().remainingWh, 0.8 * fullWh, 1e-6);
  tree.set("QZL_SHARED_DIRECTORY", tree.folder().write("file", ""));  // nothing can be saved there
  EXPECT_NEAR(readModelledHardware().remainingWh, 0.8 * fullWh, 1e-6);
}

TEST(ModelledHardware, RefusesAStateThatItCantHaveWritten) {
  const auto encoded = platform::encodeModelledHardware(advancedState(std::nullopt, {"boot", 1, 2, 3}));
  const auto& list = *encoded.as<platform::PropertyDictionary>();
  EXPECT_TRUE(platform::decodeModelledHardware(list));
  using Changes = std::vector<std::pair<std::string, platform::PropertyValue>>;
  Changes changes = {
      {"RemainingWh", 52.0},           {"RemainingWh", -1.0},
      {"BusyFraction", 1.5},           {"UptimeSeconds", std::nan("")},
      {"BusyTicks", std::int64_t{-1}}, {"PackageMicrojoules", std::numeric_limits<std::int64_t>::max()}};
  for (const auto& [key, value] : list) changes.emplace_back(key, platform::PropertyValue::Array{});
  for (const auto& [key, value] : changes) {
    platform::PropertyDictionary changed = list;
    changed.erase(key);
    EXPECT_FALSE(platform::decodeModelledHardware(changed)) << key;
    changed.emplace(key, value);
    EXPECT_FALSE(platform::decodeModelledHardware(changed)) << key;
  }
}

}  // namespace
}  // namespace quenzel::testing
