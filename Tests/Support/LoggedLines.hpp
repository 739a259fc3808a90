#pragma once

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SharedModels/Runtime/RuntimeLog.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"

namespace quenzel::testing {

/// The lines that the call logs at any level, without their times: "[LEVEL] [component] message".
template <typename Call>
std::vector<std::string> linesLoggedBy(Call&& call) {
  const ScopedEnvironment loud{{{"QZL_LOG_DISABLED", std::nullopt}}};
  RuntimeLog::setMinimumLevel(RuntimeLogLevel::info);
  ::testing::internal::CaptureStderr();
  try {
    call();
  } catch (...) {
    ::testing::internal::GetCapturedStderr();  // or the next capture ends the whole program
    throw;
  }
  std::istringstream written(::testing::internal::GetCapturedStderr());
  RuntimeLog::setMinimumLevel(RuntimeLogLevel::warn);
  std::vector<std::string> lines;
  for (std::string line; std::getline(written, line);) lines.push_back(line.substr(line.find("] [") + 2));
  return lines;
}

}  // namespace quenzel::testing
