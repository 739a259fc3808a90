#include <cstdint>

#include <fcntl.h>
#include <sys/event.h>
#include <sys/types.h>
#include <unistd.h>

#include "Platform/SubprocessSupport.hpp"

namespace quenzel::platform {
namespace {

bool closeOnExec(int descriptor) { return ::fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0; }

}  // namespace

/// Another thread may spawn between the two steps; its child loses the pipe all the same, see below.
std::optional<std::pair<FileDescriptor, FileDescriptor>> makePipe() {
  int ends[2];
  if (::pipe(ends) != 0) return std::nullopt;
  FileDescriptor readEnd(ends[0]);
  FileDescriptor writeEnd(ends[1]);
  if (!closeOnExec(ends[0]) || !closeOnExec(ends[1])) return std::nullopt;
  return std::pair(std::move(readEnd), std::move(writeEnd));
}

/// posix_spawn(2): the child gets the descriptors that its file actions name and no other.
void closeInheritedDescriptors(posix_spawn_file_actions_t&, short& flags) {
  flags = static_cast<short>(flags | POSIX_SPAWN_CLOEXEC_DEFAULT);
}

/// A kqueue(2) is readable while an event waits in it. Of a child that has ended already none is to be had.
FileDescriptor openExitDescriptor(pid_t child) {
  FileDescriptor queue(::kqueue());
  const struct kevent exit = {.ident = static_cast<std::uintptr_t>(child),
                              .filter = EVFILT_PROC,
                              .flags = EV_ADD,
                              .fflags = NOTE_EXIT,
                              .data = 0,
                              .udata = nullptr};
  const bool waits =
      queue && closeOnExec(queue.get()) && ::kevent(queue.get(), &exit, 1, nullptr, 0, nullptr) == 0;
  return waits ? std::move(queue) : FileDescriptor();
}

}  // namespace quenzel::platform
