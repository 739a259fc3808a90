#pragma once

#include <cstddef>
#include <optional>

#include "QuenzelMonitor/Console.hpp"

namespace quenzel {

/// Columns of the terminal that the output goes to; absent when it goes elsewhere.
std::optional<std::size_t> terminalWidth(const Console& console);

/// Whether text may hold more than ASCII: what the locale's variables say (LC_ALL, else LC_CTYPE, else LANG;
/// see locale(7)).
bool isUTF8Terminal();

}  // namespace quenzel
