#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace quenzel::platform {

/// What the system records of a process that it knows as an application or service.
struct RunningApplication {
  std::optional<std::string> bundleLocation;    ///< path of its bundle; none where it has none
  std::optional<std::string> bundleIdentifier;  ///< none when it declares none

  bool operator==(const RunningApplication&) const = default;
};

/// Facts about other processes. Thread-safe; nothing is cached here.
class RunningProcesses {
 public:
  virtual ~RunningProcesses() = default;

  /// Full path of the executable; where the system keeps that to itself, the best name that it tells without
  /// the process's arguments; none when there is neither (gone, on macOS a kernel process).
  virtual std::optional<std::string> executablePath(std::int32_t pid) = 0;

  /// The application record; none when the process is not a registered application.
  virtual std::optional<RunningApplication> runningApplication(std::int32_t pid) = 0;

  /// The identifier that the bundle at the path declares; none when it can't be opened or declares none.
  virtual std::optional<std::string> bundleIdentifier(const std::string& bundlePath) = 0;
};

std::unique_ptr<RunningProcesses> makeRunningProcesses();

}  // namespace quenzel::platform
