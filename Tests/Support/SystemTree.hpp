#pragma once

#include <cstdint>
#include <sstream>

#include "Platform/PropertyValue.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel::testing {

/// A machine made of text: folders that stand in for /sys, /proc and the shared directory as long as it
/// lives, with nothing in them and no hardware modelled until a test says so.
class SystemTree {
 public:
  using Files = std::map<std::string, std::string>;

  SystemTree()
      : environment_({{"QZL_SYSFS_ROOT", sys()},
                      {"QZL_PROCFS_ROOT", proc()},
                      {"QZL_SHARED_DIRECTORY", folder_ / "shared"},
                      {"QZL_MODEL_HARDWARE", std::nullopt}}) {
    for (const char* name : {"sys", "proc", "shared"}) std::filesystem::create_directory(folder_ / name);
  }

  /// Writes the attributes of a supply under /sys/class/power_supply; a line end is added as the kernel does.
  void powerSupply(const std::string& name, const Files& attributes) const {
    for (const auto& [attribute, value] : attributes)
      folder_.write("sys/class/power_supply/" + name + "/" + attribute, value + "\n");
  }

  /// Writes a zone of /sys/class/powercap.
  void energyZone(const std::string& folder, const std::string& name, std::int64_t microjoules,
                  std::int64_t rangeMicrojoules) const {
    const std::string path = "sys/class/powercap/" + folder;
    folder_.write(path + "/name", name + "\n");
    folder_.write(path + "/energy_uj", std::to_string(microjoules) + "\n");
    folder_.write(path + "/max_energy_range_uj", std::to_string(rangeMicrojoules) + "\n");
  }

  /// Writes the files of a process; its "exe" becomes a symbolic link.
  void process(std::int32_t pid, const Files& files) const {
    const std::string path = "proc/" + std::to_string(pid) + "/";
    for (const auto& [name, text] : files) {
      const std::string written = folder_.write(path + name, text);
      if (name != "exe") continue;
      std::filesystem::remove(written);
      std::filesystem::create_symlink(text, written);
    }
  }

  /// Writes the "cpu" line of /proc/stat and /proc/uptime.
  void processors(const std::string& ticks, const std::string& uptime) const {
    folder_.write("proc/stat", "cpu  " + ticks + "\ncpu0 " + ticks + "\nintr 1 2 3\n");
    folder_.write("proc/uptime", uptime + " 99.00\n");
  }

  void set(const std::string& variable, const std::optional<std::string>& value) {
    environment_.set(variable, value);
  }

  const TemporaryDirectory& folder() const { return folder_; }
  std::string sys() const { return folder_ / "sys"; }
  std::string proc() const { return folder_ / "proc"; }

 private:
  TemporaryDirectory folder_;
  ScopedEnvironment environment_;
};

/// "key=value,key=value" taken apart.
inline SystemTree::Files attributes(const std::string& text) {
  SystemTree::Files all;
  std::istringstream pairs(text);
  for (std::string pair; std::getline(pairs, pair, ',');) {
    const std::size_t end = pair.find('=');
    all[pair.substr(0, end)] = pair.substr(end + 1);
  }
  return all;
}

/// The same as properties: numbers, Booleans, else text.
inline platform::PropertyDictionary properties(const std::string& text) {
  platform::PropertyDictionary all;
  for (const auto& [key, value] : attributes(text)) {
    platform::PropertyValue& property = all.emplace(key, value).first->second;
    if (value == "true" || value == "false") property = value == "true";
    if (value.find_first_not_of("-0123456789") == std::string::npos)
      property = std::int64_t{std::stoll(value)};
  }
  return all;
}

/// Text of /proc/<pid>/stat of a process of session 700 that started at tick 5000 + pid.
inline std::string taskStatText(std::int32_t pid, const std::string& name, std::int64_t userTicks,
                                std::int64_t systemTicks) {
  return std::to_string(pid) + " (" + name + ") S 1 " + std::to_string(pid) + " 700 0 -1 4194304 31 0 17 0 " +
         std::to_string(userTicks) + " " + std::to_string(systemTicks) + " 9000 8000 20 -5 3 0 " +
         std::to_string(5000 + pid) +
         " 3133440 383 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 6 0 0 0 0 0\n";
}

}  // namespace quenzel::testing
