#pragma once

#include <optional>
#include <utility>

#include <spawn.h>
#include <sys/types.h>

#include "Base/ScopedResource.hpp"

namespace quenzel::platform {

// What starting a child needs of the particular system; Subprocess puts it together.

/// A pipe as {read end, write end}, both closed on exec from the start; none (with errno set) when
/// descriptors ran out.
std::optional<std::pair<FileDescriptor, FileDescriptor>> makePipe();

/// Makes the child lose every descriptor above standard error, whether marked close-on-exec or not.
void closeInheritedDescriptors(posix_spawn_file_actions_t& actions, short& flags);

/// A descriptor that becomes readable when the child ends, closed on exec; none where the system refuses one.
FileDescriptor openExitDescriptor(pid_t child);

}  // namespace quenzel::platform
