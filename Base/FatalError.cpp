#include "Base/FatalError.hpp"

#include <cstdio>
#include <cstdlib>

namespace quenzel {

void fatalError(std::string_view what) noexcept {
  std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(what.size()), what.data());
  std::abort();
}

}  // namespace quenzel
