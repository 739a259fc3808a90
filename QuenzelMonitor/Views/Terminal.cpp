#include "QuenzelMonitor/Views/Terminal.hpp"

#include <iostream>
#include <string>

#include "Base/Environment.hpp"
#include "Base/Text.hpp"
#include "Platform/TerminalSize.hpp"

namespace quenzel {

std::optional<std::size_t> terminalWidth(const Console& console) {
  return &console.out == &std::cout ? platform::terminalColumns() : std::nullopt;
}

bool isUTF8Terminal() {
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const std::string locale = lowercased(environmentValue(name).value_or(""));
    if (locale.empty()) continue;
    return locale.find("utf-8") != std::string::npos || locale.find("utf8") != std::string::npos;
  }
  return false;
}

std::string cutToColumns(std::string_view text, std::size_t columns, bool isUnicode) {
  if (columnOffset(text, columns) == text.size()) return std::string(text);
  const std::string_view ellipsis = isUnicode ? "…" : "...";
  const std::size_t ellipsisColumns = isUnicode ? 1 : 3;
  return std::string(text.substr(0, columnOffset(text, columns - ellipsisColumns))).append(ellipsis);
}

}  // namespace quenzel
