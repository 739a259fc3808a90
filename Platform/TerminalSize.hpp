#pragma once

#include <cstddef>
#include <optional>

namespace quenzel::platform {

/// How many columns the terminal behind standard output has; none where that is not a terminal, and where the
/// terminal does not say.
std::optional<std::size_t> terminalColumns();

}  // namespace quenzel::platform
