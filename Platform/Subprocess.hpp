#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "Base/ScopedResource.hpp"

namespace quenzel::platform {

/// A child process that could not be started; what() is the system's reason.
class SubprocessStartError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A child process whose exit status somebody else has taken.
class SubprocessStatusError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A child process from its start to its end, and what it writes meanwhile. It does not outlive this object:
/// one that still runs is killed, and a thread of its own reaps it once it has ended, so that it never stays
/// behind as a zombie. For one thread at a time; any number of objects side by side.
class Subprocess {
 public:
  using Clock = std::chrono::steady_clock;
  /// Takes what the child has written to a stream, piece by piece, on the thread that waits. What it throws
  /// ends the wait.
  using OutputCallback = std::function<void(std::string_view bytes)>;

  /// Starts the executable (a path, never looked up) with the arguments, which do not include argv[0], and
  /// with that environment ("NAME=value").
  ///
  /// The child gets an empty standard input, two pipes, no other descriptor, an empty signal mask and every
  /// signal's default disposition. It is started by posix_spawn(3), so no code of this process runs between
  /// fork and exec.
  /// @throws SubprocessStartError
  Subprocess(const std::string& executable, const std::vector<std::string>& arguments,
             std::vector<std::string> environment, OutputCallback onOutput, OutputCallback onError);
  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;
  ~Subprocess();

  /// Hands over output until the child has ended; false when the deadline came first. Blocks without polling
  /// where the system has a descriptor for a child's end.
  /// @throws SubprocessStatusError
  bool waitForExit(Clock::time_point deadline);

  /// Hands over what is left in the pipes, up to the deadline: a grandchild may keep them open.
  void drain(Clock::time_point deadline);

  /// From now on output is read, so that the child does not block on it, and dropped.
  void discardOutput() {
    onOutput_ = onError_ = [](std::string_view) {};
  }

  void terminate() const;  ///< SIGTERM
  void kill() const;       ///< SIGKILL

  /// The exit status of a child that has ended, or the number of the signal that ended it.
  std::int32_t status() const { return status_; }

 private:
  bool poll(Clock::time_point deadline);
  static void take(FileDescriptor& stream, const OutputCallback& callback);
  void reap(int options);
  void abandon() const noexcept;

  pid_t pid_ = -1;
  FileDescriptor output_;  ///< none once it is at its end, as error_
  FileDescriptor error_;
  FileDescriptor exit_;  ///< becomes readable when the child ends (a pidfd or a kqueue); none where the
                         ///< system has neither
  OutputCallback onOutput_;
  OutputCallback onError_;
  bool ended_ = false;
  std::int32_t status_ = 0;
};

}  // namespace quenzel::platform
