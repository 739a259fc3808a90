#pragma once

#include <cstddef>
#include <string_view>

namespace quenzel::platform {

/// The text without the blanks at its ends.
constexpr std::string_view trimmed(std::string_view text, std::string_view blanks = " \t\n\v\f\r") {
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

}  // namespace quenzel::platform
