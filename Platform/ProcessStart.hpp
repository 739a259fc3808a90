#pragma once

namespace quenzel::platform {

/// What every executable does first, before it opens anything and before it has threads. A parent may have
/// passed on closed standard streams, whose numbers the next files and sockets would get, so that messages
/// would be written into them; and an ignored SIGCHLD, under which no child's exit status can be read.
void prepareProcess() noexcept;

}  // namespace quenzel::platform
