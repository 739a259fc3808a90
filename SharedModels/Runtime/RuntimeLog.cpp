#include "SharedModels/Runtime/RuntimeLog.hpp"

#include <algorithm>
#include <filesystem>

#include <fmt/format.h>

#include "Base/Environment.hpp"
#include "Base/Mutex.hpp"
#include "Base/PointInTime.hpp"
#include "Base/Text.hpp"
#include "Platform/AppendFile.hpp"
#include "Platform/QuietWrite.hpp"
#include "Platform/Settings.hpp"
#include "Platform/SharedFiles.hpp"
#include "Platform/SystemLog.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"
#include "SharedModels/Runtime/NotificationCentre.hpp"

namespace quenzel {
namespace {

using platform::PropertyDictionary;

constexpr std::string_view disabledKey = "QZL_LOG_DISABLED";

struct RuntimeLogState {
  Mutex lock;
  RuntimeLogLevel minimumLevel GUARDED_BY(lock) =
      RuntimeLog::initialMinimumLevel(environment(), platform::mainBundle().infoDictionary());
  bool notificationsEnabled GUARDED_BY(lock) = false;
};

RuntimeLogState& sharedState() {
  static RuntimeLogState state;
  return state;
}

/// A switch set as text: blanks around it and letter case do not matter.
bool isTruthy(std::string_view text) {
  const std::string word = lowercased(trimmed(text));
  return word == "1" || word == "true" || word == "yes" || word == "y" || word == "on";
}

void writeToSystemLog(RuntimeLogLevel level, std::string_view component, std::string_view message) {
  static const std::string subsystem = AppConfiguration::Logging::subsystem();
  platform::SystemLog& log = platform::systemLog();
  const std::string category = RuntimeLog::systemLogCategory(component);
  const platform::SystemLogType type = systemLogType(level);
  if (log.isEnabled(subsystem, category, type)) log.write(subsystem, category, type, std::string(message));
}

void appendToSharedFile(const std::string& line) {
  const std::string path = RuntimeLog::sharedLogPath();
  if (platform::createSharedDataDirectory(std::filesystem::path(path).parent_path())) {
    platform::appendToFile(path, line, 0644);
  }
}

void write(RuntimeLogLevel level, std::string_view component, std::string_view message) {
  if (RuntimeLog::isDisabled(environmentValue(disabledKey.data()), platform::mainBundle().infoDictionary())) {
    return;
  }
  RuntimeLogState& state = sharedState();
  RuntimeLogLevel minimumLevel{};
  bool notificationsEnabled = false;
  {
    const MutexLock guard(state.lock);
    minimumLevel = state.minimumLevel;
    notificationsEnabled = state.notificationsEnabled;
  }
  if (level > minimumLevel) return;

  const std::string line = RuntimeLog::formattedLine(now().secondsSince1970(), level, component, message);
  platform::writeQuietly(platform::standardErrorDescriptor, line);
  writeToSystemLog(level, component, message);
  appendToSharedFile(line);
  if (notificationsEnabled) NotificationCentre::shared().post(runtimeLogDidWrite, {{"line", line}});
}

/// Nothing that goes wrong while logging, memory running out included, may reach the caller.
void writeSafely(RuntimeLogLevel level, std::string_view component, std::string_view message) noexcept {
  try {
    write(level, component, message);
  } catch (...) {  // NOLINT(bugprone-empty-catch)
  }
}

}  // namespace

void RuntimeLog::info(std::string_view component, std::string_view message) {
  writeSafely(RuntimeLogLevel::info, component, message);
}

void RuntimeLog::warn(std::string_view component, std::string_view message) {
  writeSafely(RuntimeLogLevel::warn, component, message);
}

void RuntimeLog::error(std::string_view component, std::string_view message) {
  writeSafely(RuntimeLogLevel::error, component, message);
}

void RuntimeLog::configure(std::optional<RuntimeLogLevel> minLevel,
                           std::optional<bool> notificationsEnabled) {
  RuntimeLogState& state = sharedState();
  const MutexLock guard(state.lock);
  if (minLevel) state.minimumLevel = *minLevel;
  if (notificationsEnabled) state.notificationsEnabled = *notificationsEnabled;
}

void RuntimeLog::setMinimumLevel(RuntimeLogLevel level) { configure(level, std::nullopt); }

void RuntimeLog::setNotificationBroadcastEnabled(bool enabled) { configure(std::nullopt, enabled); }

std::string RuntimeLog::sharedLogPath() {
  return fmt::format("{}/{}/runtime.log", platform::sharedDirectory(), AppConfiguration::dataDirectoryName);
}

RuntimeLogLevel RuntimeLog::initialMinimumLevel(const std::map<std::string, std::string>& environment,
                                                const PropertyDictionary* infoDictionary) {
  const auto levelOf = [](std::string_view text) { return runtimeLogLevel(lowercased(trimmed(text))); };
  const auto setting = environment.find(std::string(AppConfiguration::Logging::logLevelInfoKey));
  if (setting != environment.end()) {
    if (const auto level = levelOf(setting->second)) return *level;
  }
  if (infoDictionary) {
    const auto* entry = platform::find(*infoDictionary, AppConfiguration::Logging::logLevelInfoKey);
    const auto* text = entry ? entry->as<std::string>() : nullptr;
    const auto level = text ? levelOf(*text) : std::nullopt;
    if (level) return *level;
  }
  const auto verbose = environment.find("QZL_LOG_VERBOSE");
  return verbose != environment.end() && verbose->second == "1" ? RuntimeLogLevel::info
                                                                : RuntimeLogLevel::warn;
}

bool RuntimeLog::isDisabled(const std::optional<std::string>& environmentValue,
                            const PropertyDictionary* infoDictionary) {
  if (environmentValue) return isTruthy(*environmentValue);
  const auto* entry = infoDictionary ? platform::find(*infoDictionary, disabledKey) : nullptr;
  if (!entry) return false;
  if (const auto* flag = entry->as<bool>()) return *flag;
  if (const auto* text = entry->as<std::string>()) return isTruthy(*text);
  if (const auto* integer = entry->as<std::int64_t>()) return *integer != 0;
  if (const auto* real = entry->as<double>()) return *real != 0;
  return false;
}

std::string RuntimeLog::formattedLine(double secondsSince1970, RuntimeLogLevel level,
                                      std::string_view component, std::string_view message) {
  std::string tag(rawValue(level));
  std::transform(tag.begin(), tag.end(), tag.begin(),
                 [](char letter) { return static_cast<char>(letter - 'a' + 'A'); });
  return fmt::format("[{:.3f}] [{}] [{}] {}\n", secondsSince1970, tag, component, message);
}

std::string RuntimeLog::systemLogCategory(std::string_view component) {
  std::string category(trimmed(component));
  std::replace(category.begin(), category.end(), ' ', '_');
  return category.empty() ? "General" : category;
}

}  // namespace quenzel
