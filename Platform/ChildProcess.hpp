#pragma once

#include <string>
#include <variant>
#include <vector>

#include <sys/types.h>

#include "Base/ScopedResource.hpp"

namespace quenzel::platform {

/// A child just started, with the read ends of its two output pipes (non-blocking, closed on exec).
struct ChildProcess {
  pid_t pid = -1;
  FileDescriptor standardOutput;
  FileDescriptor standardError;
  FileDescriptor exit;  ///< becomes readable when the child ends (a pidfd or a kqueue); none where the system
                        ///< has neither
};

struct SpawnFailure {
  int errorNumber = 0;
};

/// Starts the executable (a path, never looked up) with the arguments, which do not include argv[0], and with
/// that environment ("NAME=value").
///
/// The child gets an empty standard input, the two pipes, no other descriptor, an
/// empty signal mask and every signal's default disposition. It is started by posix_spawn(3), so no code of
/// this process runs between fork and exec, and any number of threads may spawn side by side. The caller
/// reaps it with waitpid(2).
std::variant<ChildProcess, SpawnFailure> spawnChild(const std::string& executable,
                                                    const std::vector<std::string>& arguments,
                                                    std::vector<std::string> environment);

}  // namespace quenzel::platform
