#include <array>
#include <string>

#include <sys/uio.h>
#include <syslog.h>
// Entries say where a message belongs by subsystem and category. The file and line that the library would add
// are those of the machine that built this.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>
#include <unistd.h>

#include "Platform/SystemLog.hpp"

namespace quenzel::platform {
namespace {

// Where journald takes messages, systemd-journald.service(8).
constexpr const char* journalSocket = "/run/systemd/journal/socket";

int priorityOf(SystemLogType type) {
  switch (type) {
    case SystemLogType::error:
      return LOG_ERR;
    case SystemLogType::info:
      return LOG_INFO;
    case SystemLogType::debug:
      break;
  }
  return LOG_DEBUG;
}

/// The journal, by fields as in systemd.journal-fields(7). The library adds SYSLOG_IDENTIFIER, the
/// executable's name.
class LinuxSystemLog final : public SystemLog {
 public:
  bool isEnabled(const std::string&, const std::string&, SystemLogType) override {
    return ::access(journalSocket, F_OK) == 0;
  }

  void write(const std::string& subsystem, const std::string& category, SystemLogType type,
             const std::string& message) override {
    const int priority = priorityOf(type);
    std::array<std::string, 4> fields = {"MESSAGE=" + message, "PRIORITY=" + std::to_string(priority),
                                         "SUBSYSTEM=" + subsystem, "CATEGORY=" + category};
    std::array<iovec, fields.size()> vectors{};
    for (std::size_t i = 0; i < fields.size(); ++i) vectors[i] = {fields[i].data(), fields[i].size()};
    ::sd_journal_sendv(vectors.data(), static_cast<int>(vectors.size()));
  }
};

}  // namespace

SystemLog& systemLog() {
  static LinuxSystemLog log;
  return log;
}

}  // namespace quenzel::platform
