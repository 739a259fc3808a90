#include <map>
#include <utility>

#include <os/log.h>

#include "Base/Mutex.hpp"
#include "Platform/SystemLog.hpp"

namespace quenzel::platform {
namespace {

os_log_type_t typeOf(SystemLogType type) {
  switch (type) {
    case SystemLogType::error:
      return OS_LOG_TYPE_ERROR;
    case SystemLogType::info:
      return OS_LOG_TYPE_INFO;
    case SystemLogType::debug:
      break;
  }
  return OS_LOG_TYPE_DEBUG;
}

class DarwinSystemLog final : public SystemLog {
 public:
  bool isEnabled(const std::string& subsystem, const std::string& category, SystemLogType type) override {
    return os_log_type_enabled(logger(subsystem, category), typeOf(type));
  }

  /// The system cuts what follows the first 1 KiB or so.
  void write(const std::string& subsystem, const std::string& category, SystemLogType type,
             const std::string& message) override {
    os_log_with_type(logger(subsystem, category), typeOf(type), "%{public}s", message.c_str());
  }

 private:
  /// A logger is made once and lives as long as the process: the system keeps every one that it hands out.
  os_log_t logger(const std::string& subsystem, const std::string& category) {
    const MutexLock guard(lock_);
    os_log_t& logger = loggers_[{subsystem, category}];
    if (!logger) logger = os_log_create(subsystem.c_str(), category.c_str());
    return logger;
  }

  Mutex lock_;
  std::map<std::pair<std::string, std::string>, os_log_t> loggers_ GUARDED_BY(lock_);
};

}  // namespace

SystemLog& systemLog() {
  static DarwinSystemLog log;
  return log;
}

}  // namespace quenzel::platform
