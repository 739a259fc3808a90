#pragma once

#include <string>

namespace quenzel::platform {

enum class SystemLogType { error, info, debug };

/// The operating system's own log. Thread-safe; failures are ignored.
class SystemLog {
 public:
  virtual ~SystemLog() = default;

  /// Whether the system keeps messages of that type from this logger at all.
  virtual bool isEnabled(const std::string& subsystem, const std::string& category, SystemLogType type) = 0;

  virtual void write(const std::string& subsystem, const std::string& category, SystemLogType type,
                     const std::string& message) = 0;
};

/// The log of this platform: os_log on macOS, journald (fields SUBSYSTEM and CATEGORY) on Linux.
SystemLog& systemLog();

}  // namespace quenzel::platform
