// Stand-in for pmset(1): shows and switches Low Power Mode, which on Linux is the firmware's low-power
// profile.

#include <string>
#include <vector>

#include <fmt/format.h>

#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/Linux/ModelledHardware.hpp"
#include "Platform/Linux/PlatformProfile.hpp"
#include "Platform/Linux/Tools/ToolOutput.hpp"

namespace quenzel::platform {
namespace {

constexpr const char* help =
    "Usage: pmset -g\n"
    "       pmset -a lowpowermode 0|1\n"
    "Shows or changes the power settings of this machine.\n";

constexpr const char* noProfiles =
    "pmset: lowpowermode is not supported: this machine has no platform profiles";

std::string settings(bool lowPowerMode) {
  return fmt::format("Currently in use:\n {:<20} {}\n", "lowpowermode", lowPowerMode ? 1 : 0);
}

int showSettings() {
  if (const auto enabled = lowPowerProfile(sysfsRoot())) return printed(settings(*enabled));
  if (!modelsHardware()) return failed(noProfiles);
  return printed("Modelled hardware: this machine has no platform profiles.\n" +
                 settings(readModelledHardware().lowPowerMode));
}

int setLowPowerMode(bool enabled) {
  if (lowPowerProfile(sysfsRoot())) {
    const std::optional<std::string> failure = setLowPowerProfile(sysfsRoot(), enabled);
    return failure ? failed("pmset: " + *failure) : EXIT_SUCCESS;
  }
  if (!modelsHardware()) return failed(noProfiles);
  if (const auto failure = setModelledLowPowerMode(enabled)) return failed("pmset: " + *failure);
  return printed("Modelled hardware: this machine has no platform profiles.\n");
}

int run(const std::vector<std::string>& arguments) {
  using Arguments = std::vector<std::string>;
  if (arguments == Arguments{"--help"} || arguments == Arguments{"-h"}) return printed(help);
  if (arguments == Arguments{"-g"}) return showSettings();
  if (arguments == Arguments{"-a", "lowpowermode", "0"}) return setLowPowerMode(false);
  if (arguments == Arguments{"-a", "lowpowermode", "1"}) return setLowPowerMode(true);
  return failed("pmset: expected -g or -a lowpowermode 0|1; see pmset --help");
}

}  // namespace
}  // namespace quenzel::platform

int main(int argc, char** argv) {
  return quenzel::platform::toolMain("pmset", [&] {
    return quenzel::platform::run({argv + 1, argv + argc});
  });
}
