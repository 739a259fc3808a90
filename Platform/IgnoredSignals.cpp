#include "Platform/IgnoredSignals.hpp"

#include <csignal>

namespace quenzel::platform {

void ignoreBrokenPipes() { std::signal(SIGPIPE, SIG_IGN); }

void ignoreFileSizeLimit() { std::signal(SIGXFSZ, SIG_IGN); }

}  // namespace quenzel::platform
