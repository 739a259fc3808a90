#pragma once

#include <csignal>

#include "Base/ScopedResource.hpp"

namespace quenzel::platform {

/// SIGINT and SIGTERM, for as long as this object lives, as the wish that a long-running command ends; after
/// it they do what they did before. They are caught even where the parent had them ignored, as a shell has
/// SIGINT for what it runs in the background: whoever sends one means it.
///
/// The handler writes a byte into a pipe, so that a signal between two waits ends the second one at once and
/// nothing wakes up meanwhile. A terminal sends SIGINT to the children of the command as well, and those are
/// not protected. One object at a time.
class StopSignals {
 public:
  /// @throws std::system_error when there is no descriptor left
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  /// Whether one of them has come since construction; waits for it up to so many seconds. Any thread.
  bool waitFor(double seconds) const;

 private:
  FileDescriptor readEnd_;
  FileDescriptor writeEnd_;
  struct sigaction formerInterrupt_;
  struct sigaction formerTerminate_;
};

}  // namespace quenzel::platform
