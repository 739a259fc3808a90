#include "QuenzelMonitor/Terminal.hpp"

#include <iostream>
#include <string>

#include <sys/ioctl.h>
#include <unistd.h>

#include "Base/Environment.hpp"
#include "Base/Text.hpp"

namespace quenzel {

std::optional<std::size_t> terminalWidth(const Console& console) {
  winsize size{};
  if (&console.out != &std::cout || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
    return {};
  return size.ws_col;
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
