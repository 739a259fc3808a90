#include "Platform/Linux/ModelledHardware.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/FileDescriptor.hpp"
#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/Linux/LinuxPropertyListFile.hpp"
#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/Linux/ProcessorTimes.hpp"
#include "Platform/PropertyList.hpp"
#include "Platform/Settings.hpp"

namespace quenzel::platform {
namespace {

// The daemon runs as root and the monitor as a user; whoever comes first must not lock the other out.
constexpr mode_t sharedFolderMode = 0777;
constexpr mode_t sharedFileMode = 0666;

std::string stateFolder() { return sharedDirectory() + "/Quenzel"; }
std::string stateFile() { return stateFolder() + "/modelled-hardware.plist"; }
std::string lockFile() { return stateFolder() + "/modelled-hardware.lock"; }

void makeStateFolder() {
  std::error_code failure;  // shows when the lock file can't be opened
  if (std::filesystem::create_directories(stateFolder(), failure)) {
    ::chmod(stateFolder().c_str(), sharedFolderMode);
  }
}

/// The held lock, none when it can't be had. Closing the file gives it back.
FileDescriptor lockState(int operation) {
  makeStateFolder();
  FileDescriptor file(::open(lockFile().c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, sharedFileMode));
  if (!file.valid()) return {};
  ::fchmod(file.get(),
           sharedFileMode);  // whatever the umask; fails for a file of somebody else, who did it already
  int result = ::flock(file.get(), operation);
  while (result < 0 && errno == EINTR) result = ::flock(file.get(), operation);
  return result == 0 ? std::move(file) : FileDescriptor();
}

bool writeWhole(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(file, text.data(), text.size());
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

/// Replaces the state file; the caller holds the lock.
bool saveState(const ModelledHardwareState& state) {
  std::string temporary = stateFile() + ".XXXXXX";
  FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.valid()) return false;
  const bool saved = writeWhole(file.get(), encodePropertyList(encodeModelledHardware(state))) &&
                     ::fchmod(file.get(), sharedFileMode) == 0 &&
                     ::rename(temporary.c_str(), stateFile().c_str()) == 0;
  if (!saved) ::unlink(temporary.c_str());
  return saved;
}

std::optional<ModelledHardwareState> savedState() {
  const std::optional<PropertyDictionary> list = propertyListFile(stateFile());
  return list ? decodeModelledHardware(*list) : std::nullopt;
}

/// Seconds since boot as /proc/uptime writes them: a plain decimal number up to the first blank.
double uptimeSeconds() {
  const std::string text = fileText(procfsRoot() + "/uptime").value_or("");
  std::string_view rest = text;
  std::string_view number = nextPiece(rest, ' ');
  const std::string_view whole = nextPiece(number, '.');
  const double seconds = static_cast<double>(parseInteger<std::uint32_t>(whole).value_or(0));
  const double decimals = static_cast<double>(parseInteger<std::uint32_t>(number).value_or(0));
  return seconds + decimals / std::pow(10, static_cast<double>(number.size()));
}

MachineActivity machineActivity() {
  const ProcessorTimes times = processorTimes().value_or(ProcessorTimes{});
  return {.bootID = fileValue(procfsRoot() + "/sys/kernel/random/boot_id").value_or(""),
          .uptimeSeconds = uptimeSeconds(),
          .busyTicks = static_cast<std::int64_t>(times.busyTicks()),
          .totalTicks = static_cast<std::int64_t>(times.totalTicks())};
}

}  // namespace

ModelledHardwareState readModelledHardware() {
  const FileDescriptor lock = lockState(LOCK_EX | LOCK_NB);
  const std::optional<ModelledHardwareState> former = savedState();
  const ModelledHardwareState state = advancedState(former, machineActivity());
  if (lock.valid() && state != former) saveState(state);
  return state;
}

bool setModelledLowPowerMode(bool enabled) {
  const FileDescriptor lock = lockState(LOCK_EX);
  if (!lock.valid()) return false;
  ModelledHardwareState state = advancedState(savedState(), machineActivity());
  state.lowPowerMode = enabled;
  return saveState(state);
}

}  // namespace quenzel::platform
