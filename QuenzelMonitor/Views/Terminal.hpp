#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "QuenzelMonitor/Console.hpp"

namespace quenzel {

/// Columns of the terminal that the output goes to; absent when it goes elsewhere.
std::optional<std::size_t> terminalWidth(const Console& console);

/// Whether text may hold more than ASCII: what the locale's variables say (LC_ALL, else LC_CTYPE, else LANG;
/// see locale(7)).
bool isUTF8Terminal();

/// The text where it takes no more than so many columns (at least 4), else as much of it as does with the
/// ellipsis that then ends it.
/// @param isUnicode whether the terminal can show "…"; else the ellipsis is "..."
std::string cutToColumns(std::string_view text, std::size_t columns, bool isUnicode);

}  // namespace quenzel
