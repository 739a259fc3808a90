#include "Base/WriteAll.hpp"

#include <cerrno>

#include <unistd.h>

namespace quenzel {

int writeAll(int descriptor, std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) return errno;
    if (written == 0) return EIO;
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace quenzel
