#pragma once

#include <optional>
#include <string_view>

#include "Platform/SystemLog.hpp"

namespace quenzel {

/// From most to least severe; a message is written when it is not less severe than the minimum level.
enum class RuntimeLogLevel { error = 0, warn = 1, info = 2 };

/// "error", "warn" or "info".
std::string_view rawValue(RuntimeLogLevel level);
/// The level of exactly that raw value.
std::optional<RuntimeLogLevel> runtimeLogLevel(std::string_view rawValue);
/// The unified log knows no warnings: they go there as errors.
platform::SystemLogType systemLogType(RuntimeLogLevel level);

}  // namespace quenzel
