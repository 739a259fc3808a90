#include <climits>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include <unistd.h>

#include "Platform/Linux/ControlGroup.hpp"
#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/Linux/LinuxPropertyListFile.hpp"
#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/Linux/ProcessTable.hpp"
#include "Platform/RunningProcesses.hpp"

namespace quenzel::platform {
namespace {

/// What proc(5) appends to the link of an executable whose file was removed, by an upgrade for instance.
constexpr std::string_view deletedSuffix = " (deleted)";

/// What memfd_create(2) puts before the name of a file that lies in memory alone.
constexpr std::string_view memoryFilePrefix = "/memfd:";

std::string_view lastComponent(std::string_view path) { return path.substr(path.rfind('/') + 1); }

/// Whether the first argument is the path of what runs. A process may have written a title over its
/// arguments, with anything in it: so what holds a blank must end in the process's own name, which the kernel
/// cuts.
bool isPathOf(std::string_view argument, std::string_view processName) {
  if (!argument.starts_with('/') || lastComponent(argument).empty()) return false;
  return argument.find_first_of(" \t\n") == std::string_view::npos ||
         lastComponent(argument).substr(0, mostTaskNameBytes) == processName;
}

class LinuxRunningProcesses final : public RunningProcesses {
 public:
  /// The executable, else the best name that the process has without its arguments, which may hold secrets:
  /// its first argument where that is a path, else its name.
  std::optional<std::string> executablePath(std::int32_t pid) override {
    if (auto path = linkedExecutable(pid)) return path;
    const std::optional<std::string> stat = fileText(processFile(pid, "stat"));
    std::optional<TaskStat> task = stat ? parseTaskStat(*stat) : std::nullopt;
    if (!task) return std::nullopt;
    if (task->kernelThread) return kernelGroupName;
    const std::string arguments = fileText(processFile(pid, "cmdline")).value_or("");
    const std::string_view first = std::string_view(arguments).substr(0, arguments.find('\0'));
    return isPathOf(first, task->name) ? std::string(first) : std::move(task->name);
  }

  std::optional<RunningApplication> runningApplication(std::int32_t pid) override {
    const std::optional<std::string> cgroup = fileText(processFile(pid, "cgroup"));
    const auto unit = cgroup ? controlGroupUnit(controlGroupPath(*cgroup)) : std::nullopt;
    std::optional<std::string> identifier = unit ? applicationIdentifier(*unit) : std::nullopt;
    if (!identifier) return std::nullopt;
    return RunningApplication{.bundleLocation = std::nullopt, .bundleIdentifier = std::move(identifier)};
  }

  std::optional<std::string> bundleIdentifier(const std::string& bundlePath) override {
    if (!bundlePath.starts_with('/')) return std::nullopt;  // a process's name, which is no place
    for (const char* const place : {"/Contents/Info.plist", "/Info.plist"}) {
      const std::optional<PropertyDictionary> info = propertyListFile(bundlePath + place);
      const PropertyValue* const entry = info ? find(*info, "CFBundleIdentifier") : nullptr;
      if (const std::string* const identifier = entry ? entry->as<std::string>() : nullptr)
        return *identifier;
    }
    return std::nullopt;
  }

 private:
  static std::optional<std::string> linkedExecutable(std::int32_t pid) {
    const std::string link = processFile(pid, "exe");
    std::string path(PATH_MAX, '\0');
    const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
    if (length <= 0) return std::nullopt;
    path.resize(static_cast<std::size_t>(length));
    std::error_code failure;
    // A file may really be called so.
    if (path.ends_with(deletedSuffix) && !std::filesystem::equivalent(link, path, failure))
      path.resize(path.size() - deletedSuffix.size());
    if (!path.starts_with(memoryFilePrefix)) return path;
    path.erase(0, memoryFilePrefix.size());
    const bool isName = !path.empty() && path.find('/') == std::string::npos;
    return isName ? std::optional(std::move(path)) : std::nullopt;
  }

  static std::string processFile(std::int32_t pid, const char* name) {
    return procfsRoot() + '/' + std::to_string(pid) + '/' + name;
  }
};

}  // namespace

std::unique_ptr<RunningProcesses> makeRunningProcesses() { return std::make_unique<LinuxRunningProcesses>(); }

}  // namespace quenzel::platform
