#pragma once

#include <string>

namespace quenzel {

/// What the system says of an error number (errno(3)), in the words of strerror(3). Thread-safe.
std::string errorText(int errorNumber);

}  // namespace quenzel
