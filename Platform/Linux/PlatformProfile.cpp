#include "Platform/Linux/PlatformProfile.hpp"

#include "Base/ErrorText.hpp"
#include "Base/Text.hpp"
#include "Platform/Linux/KernelFiles.hpp"

namespace quenzel::platform {
namespace {

constexpr std::string_view lowPowerName = "low-power";
constexpr std::string_view usualName = "balanced";

std::string profileFile(const std::string& sysfsRoot) {
  return sysfsRoot + "/firmware/acpi/platform_profile";
}

}  // namespace

std::optional<bool> lowPowerProfile(const std::string& sysfsRoot) {
  const std::optional<std::string> profile = fileValue(profileFile(sysfsRoot));
  return profile ? std::optional(*profile == lowPowerName) : std::nullopt;
}

std::optional<std::string> profileFor(bool lowPower, std::string_view choices) {
  std::optional<std::string> chosen;
  choices = trimmedASCII(choices);
  while (!choices.empty()) {
    const std::string_view choice = trimmedASCII(nextPiece(choices, ' '));
    if (choice.empty() || (choice == lowPowerName) != lowPower) continue;
    if (choice == usualName || !chosen) chosen = choice;
  }
  return chosen;
}

std::optional<std::string> setLowPowerProfile(const std::string& sysfsRoot, bool enabled) {
  const std::string file = profileFile(sysfsRoot);
  if (lowPowerProfile(sysfsRoot) == enabled) return std::nullopt;
  const std::optional<std::string> profile =
      profileFor(enabled, fileValue(file + "_choices").value_or("low-power balanced"));
  if (!profile) {
    return enabled ? "this machine offers no low-power platform profile"
                   : "this machine offers no platform profile but low-power";
  }
  if (const int error = writeFileValue(file, *profile)) {
    return "can't set the platform profile \"" + *profile + "\": " + errorText(error);
  }
  if (lowPowerProfile(sysfsRoot) == enabled) return std::nullopt;
  return "the platform profile stayed at \"" + fileValue(file).value_or("unknown") + "\"";
}

}  // namespace quenzel::platform
