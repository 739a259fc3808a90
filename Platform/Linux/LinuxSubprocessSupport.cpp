#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/SubprocessSupport.hpp"

namespace quenzel::platform {

std::optional<std::pair<FileDescriptor, FileDescriptor>> makePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  return std::pair(FileDescriptor(ends[0]), FileDescriptor(ends[1]));
}

void closeInheritedDescriptors(posix_spawn_file_actions_t& actions, short&) {
  ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
}

// pidfd_open(2): close-on-exec by itself; glibc 2.36 has a wrapper, older ones do not.
FileDescriptor openExitDescriptor(pid_t child) {
  return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
}

}  // namespace quenzel::platform
