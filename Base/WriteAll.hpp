#pragma once

#include <string_view>

namespace quenzel {

/// Writes all of the bytes with write(2), whatever interrupts it or takes only a part; 0, or the errno of
/// what failed. Thread-safe.
int writeAll(int descriptor, std::string_view bytes) noexcept;

}  // namespace quenzel
