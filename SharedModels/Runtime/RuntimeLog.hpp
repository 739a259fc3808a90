#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/BundleInformation.hpp"
#include "SharedModels/Runtime/RuntimeLogLevel.hpp"

namespace quenzel {

/// Name of the notification that carries each written line to observers in this process, under the key
/// "line".
inline constexpr std::string_view runtimeLogDidWrite = "RuntimeLogDidWrite";

/// The one logging facility. A call writes one line,
/// "[<seconds since 1970, 3 decimals>] [<LEVEL>] [<component>] <message>\n", to standard error, to the
/// system's log, to the shared log file and, when switched on, to observers. Nothing here fails, throws or
/// raises a signal; each destination is written whatever became of the others. Any thread may log; the one
/// lock guards two settings and is never held while writing.
///
/// Every call looks at QZL_LOG_DISABLED afresh, and opens and closes the file, so that a switch set at run
/// time and a log file moved away take effect with the next line.
class RuntimeLog {
 public:
  static void info(std::string_view component, std::string_view message);
  static void warn(std::string_view component, std::string_view message);
  static void error(std::string_view component, std::string_view message);

  /// Replaces the values that are given.
  static void configure(std::optional<RuntimeLogLevel> minLevel = std::nullopt,
                        std::optional<bool> notificationsEnabled = std::nullopt);
  static void setMinimumLevel(RuntimeLogLevel level);
  static void setNotificationBroadcastEnabled(bool enabled);

  /// "<shared directory>/Quenzel/runtime.log"
  static std::string sharedLogPath();

  // The rules behind it, open to tests.

  /// QZL_LOG_LEVEL of the environment, then of Info.plist, then QZL_LOG_VERBOSE=1, else warn.
  static RuntimeLogLevel initialMinimumLevel(const std::map<std::string, std::string>& environment,
                                             const platform::PropertyDictionary* infoDictionary);
  /// @param environmentValue QZL_LOG_DISABLED of the environment; when present it alone decides
  static bool isDisabled(const std::optional<std::string>& environmentValue,
                         const platform::PropertyDictionary* infoDictionary);
  static std::string formattedLine(double secondsSince1970, RuntimeLogLevel level, std::string_view component,
                                   std::string_view message);
  static std::string systemLogCategory(std::string_view component);
};

}  // namespace quenzel
