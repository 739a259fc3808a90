#include "Platform/TerminalSize.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

namespace quenzel::platform {

std::optional<std::size_t> terminalColumns() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return std::nullopt;
  return size.ws_col;
}

}  // namespace quenzel::platform
