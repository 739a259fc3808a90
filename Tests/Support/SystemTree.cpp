#include "Tests/Support/SystemTree.hpp"

#include <filesystem>

namespace quenzel::testing {

SystemTree::SystemTree()
    : environment_({{"QZL_SYSFS_ROOT", sys()},
                    {"QZL_PROCFS_ROOT", proc()},
                    {"QZL_SHARED_DIRECTORY", shared()},
                    {"QZL_MODEL_HARDWARE", std::nullopt}}) {
  for (const std::string& path : {sys(), proc(), shared()}) std::filesystem::create_directory(path);
}

void SystemTree::powerSupply(const std::string& name, const Files& attributes) const {
  for (const auto& [attribute, value] : attributes) {
    folder_.write("sys/class/power_supply/" + name + "/" + attribute, value + "\n");
  }
}

void SystemTree::energyZone(const std::string& folder, const std::string& name, std::int64_t microjoules,
                            std::int64_t rangeMicrojoules) const {
  const std::string path = "sys/class/powercap/" + folder;
  folder_.write(path + "/name", name + "\n");
  folder_.write(path + "/energy_uj", std::to_string(microjoules) + "\n");
  folder_.write(path + "/max_energy_range_uj", std::to_string(rangeMicrojoules) + "\n");
}

void SystemTree::process(std::int32_t pid, const Files& files) const {
  const std::string path = "proc/" + std::to_string(pid) + "/";
  for (const auto& [name, text] : files) {
    if (name != "exe") {
      folder_.write(path + name, text);
      continue;
    }
    std::filesystem::create_directories(folder_ / path);
    std::filesystem::create_symlink(text, folder_ / (path + name));
  }
}

void SystemTree::processors(const std::string& ticks, const std::string& uptime) const {
  folder_.write("proc/stat", "cpu  " + ticks + "\ncpu0 " + ticks + "\nintr 1 2 3\n");
  folder_.write("proc/uptime", uptime + " 99.00\n");
}

std::string taskStatText(std::int32_t pid, const std::string& name, std::int64_t userTicks,
                         std::int64_t systemTicks) {
  return std::to_string(pid) + " (" + name + ") S 1 " + std::to_string(pid) + " 700 0 -1 4194304 31 0 17 0 " +
         std::to_string(userTicks) + " " + std::to_string(systemTicks) + " 9000 8000 20 -5 3 0 " +
         std::to_string(5000 + pid) +
         " 3133440 383 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 6 0 0 0 0 0\n";
}

}  // namespace quenzel::testing
