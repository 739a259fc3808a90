#include "Platform/Linux/LinuxSettings.hpp"

#include "Base/Environment.hpp"

namespace quenzel::platform {
namespace {

std::string rootSetting(const char* name, const char* usual) {
  std::string root = environmentValue(name).value_or("");
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  return root.empty() ? usual : root;
}

}  // namespace

std::string sysfsRoot() { return rootSetting("QZL_SYSFS_ROOT", "/sys"); }

std::string procfsRoot() { return rootSetting("QZL_PROCFS_ROOT", "/proc"); }

bool modelsHardware() { return environmentValue("QZL_MODEL_HARDWARE") == "1"; }

}  // namespace quenzel::platform
