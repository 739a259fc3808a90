#include <climits>

#include <unistd.h>

#include "Platform/Linux/ControlGroup.hpp"
#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/Linux/LinuxPropertyListFile.hpp"
#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/RunningProcesses.hpp"

namespace quenzel::platform {
namespace {

/// What proc(5) appends to the link of an executable whose file was removed, by an upgrade for instance.
constexpr std::string_view deletedSuffix = " (deleted)";

class LinuxRunningProcesses final : public RunningProcesses {
 public:
  std::optional<std::string> executablePath(std::int32_t pid) override {
    std::string path(PATH_MAX, '\0');
    const ssize_t length = ::readlink(processFile(pid, "exe").c_str(), path.data(), path.size());
    if (length <= 0) return std::nullopt;
    path.resize(static_cast<std::size_t>(length));
    if (path.ends_with(deletedSuffix)) path.resize(path.size() - deletedSuffix.size());
    return path;
  }

  std::optional<RunningApplication> runningApplication(std::int32_t pid) override {
    const std::optional<std::string> cgroup = fileText(processFile(pid, "cgroup"));
    const auto unit = cgroup ? controlGroupUnit(controlGroupPath(*cgroup)) : std::nullopt;
    std::optional<std::string> identifier = unit ? applicationIdentifier(*unit) : std::nullopt;
    if (!identifier) return std::nullopt;
    return RunningApplication{.bundleLocation = std::nullopt, .bundleIdentifier = std::move(identifier)};
  }

  std::optional<std::string> bundleIdentifier(const std::string& bundlePath) override {
    for (const char* const place : {"/Contents/Info.plist", "/Info.plist"}) {
      const std::optional<PropertyDictionary> info = propertyListFile(bundlePath + place);
      const PropertyValue* const entry = info ? find(*info, "CFBundleIdentifier") : nullptr;
      if (const std::string* const identifier = entry ? entry->as<std::string>() : nullptr)
        return *identifier;
    }
    return std::nullopt;
  }

 private:
  static std::string processFile(std::int32_t pid, const char* name) {
    return procfsRoot() + '/' + std::to_string(pid) + '/' + name;
  }
};

}  // namespace

std::unique_ptr<RunningProcesses> makeRunningProcesses() { return std::make_unique<LinuxRunningProcesses>(); }

}  // namespace quenzel::platform
