#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quenzel::platform {

// The firmware's platform profile (Documentation/ABI/testing/sysfs-platform_profile of the kernel):
// /sys/firmware/acpi/platform_profile holds the profile in force, platform_profile_choices those on offer.
// The profile "low-power" stands for Low Power Mode.

/// Whether Low Power Mode is on; none on a machine without platform profiles.
std::optional<bool> lowPowerProfile(const std::string& sysfsRoot);

/// Switches Low Power Mode and reads back what came of it; leaves a profile alone that already is as asked.
/// @return what went wrong, in words for a person; none when it worked
std::optional<std::string> setLowPowerProfile(const std::string& sysfsRoot, bool enabled);

/// The profile to choose of those on offer (separated by blanks): "low-power" to switch on; "balanced", else
/// the first that is not "low-power", to switch off; none when there is no such profile.
std::optional<std::string> profileFor(bool lowPower, std::string_view choices);

}  // namespace quenzel::platform
