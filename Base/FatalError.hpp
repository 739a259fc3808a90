#pragma once

#include <string_view>

namespace quenzel {

/// Ends the process for a broken assumption that no caller could handle: says on standard error what happened
/// and aborts (SIGABRT).
[[noreturn]] void fatalError(std::string_view what) noexcept;

}  // namespace quenzel
