#pragma once

namespace quenzel::platform {

// Each lets a write that the system would answer with a deadly signal fail instead, for the rest of the
// process's life.

/// Writes to a pipe or socket that nobody reads (SIGPIPE).
void ignoreBrokenPipes();

/// Writes to a file that has reached this process's size limit (SIGXFSZ).
void ignoreFileSizeLimit();

}  // namespace quenzel::platform
