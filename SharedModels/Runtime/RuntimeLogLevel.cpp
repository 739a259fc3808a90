#include "SharedModels/Runtime/RuntimeLogLevel.hpp"

namespace quenzel {

std::string_view rawValue(RuntimeLogLevel level) {
  switch (level) {
    case RuntimeLogLevel::error:
      return "error";
    case RuntimeLogLevel::warn:
      return "warn";
    case RuntimeLogLevel::info:
      break;
  }
  return "info";
}

std::optional<RuntimeLogLevel> runtimeLogLevel(std::string_view rawText) {
  for (const auto level : {RuntimeLogLevel::error, RuntimeLogLevel::warn, RuntimeLogLevel::info}) {
    if (rawText == rawValue(level)) return level;
  }
  return std::nullopt;
}

platform::SystemLogType systemLogType(RuntimeLogLevel level) {
  return level == RuntimeLogLevel::info ? platform::SystemLogType::info : platform::SystemLogType::error;
}

}  // namespace quenzel
