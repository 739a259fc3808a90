#include "Platform/Linux/ModelledHardware.hpp"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Base/ErrorText.hpp"
#include "Base/Number.hpp"
#include "Base/ScopedResource.hpp"
#include "Base/WriteAll.hpp"
#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/Linux/LinuxPropertyListFile.hpp"
#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/Linux/ProcessorTimes.hpp"
#include "Platform/PropertyList.hpp"
#include "Platform/Settings.hpp"
#include "Platform/SharedFiles.hpp"

namespace quenzel::platform {
namespace {

// The daemon runs as root and the monitor as a user; whoever comes first must not lock the other out.
constexpr mode_t sharedFileMode = 0666;

// Saving takes a moment; but any user can lock the file, and keep it locked.
constexpr std::chrono::seconds lockPatience{1};
constexpr std::chrono::milliseconds lockRetryInterval{20};

std::string stateFolder() { return sharedDirectory() + "/Quenzel"; }
std::string stateFile() { return stateFolder() + "/modelled-hardware.plist"; }
std::string lockFile() { return stateFolder() + "/modelled-hardware.lock"; }

/// The file that whoever saves the state locks; closing it gives the lock back.
FileDescriptor openLockFile() {
  createSharedDataDirectory(stateFolder());  // a failure shows here
  constexpr int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW;
  FileDescriptor created(::open(lockFile().c_str(), flags | O_CREAT | O_EXCL, sharedFileMode));
  if (!created) return FileDescriptor(::open(lockFile().c_str(), flags));
  ::fchmod(created.get(), sharedFileMode);  // whatever the umask
  return created;
}

bool lockWithin(std::chrono::milliseconds patience, const FileDescriptor& file) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(lockRetryInterval);
  }
  return true;
}

/// Replaces the state file; the caller holds the lock.
bool saveState(const ModelledHardwareState& state) {
  std::string temporary = stateFile() + ".XXXXXX";
  FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) return false;
  const bool saved = writeAll(file.get(), encodePropertyList(encodeModelledHardware(state))) == 0 &&
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
  const FileDescriptor lock = openLockFile();
  const bool locked = lockWithin({}, lock);
  const std::optional<ModelledHardwareState> former = savedState();
  const ModelledHardwareState state = advancedState(former, machineActivity());
  if (locked && state != former) saveState(state);
  return state;
}

std::optional<std::string> setModelledLowPowerMode(bool enabled) {
  const FileDescriptor lock = openLockFile();
  const int failure = errno;
  if (!lock) return "can't open " + lockFile() + ": " + errorText(failure);
  if (!lockWithin(lockPatience, lock)) return "another program keeps " + lockFile() + " locked";
  ModelledHardwareState state = advancedState(savedState(), machineActivity());
  state.lowPowerMode = enabled;
  if (!saveState(state)) return "can't save " + stateFile();
  return std::nullopt;
}

}  // namespace quenzel::platform
