#include "Platform/Subprocess.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include "Base/ErrorText.hpp"
#include "Platform/SubprocessSupport.hpp"

namespace quenzel::platform {
namespace {

/// How often a child is asked for where the system has no exit descriptor.
constexpr std::chrono::milliseconds exitProbeInterval{10};

class SpawnAttributes {
 public:
  SpawnAttributes() { ::posix_spawnattr_init(&attributes_); }
  ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  void resetSignals(short otherFlags) {
    sigset_t none;
    sigset_t all;
    // Unqualified: macOS has macros of these names.
    sigemptyset(&none);
    sigfillset(&all);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    const int flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | otherFlags;
    ::posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));
  }
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

class SpawnFileActions {
 public:
  SpawnFileActions() { ::posix_spawn_file_actions_init(&actions_); }
  ~SpawnFileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  SpawnFileActions(const SpawnFileActions&) = delete;
  SpawnFileActions& operator=(const SpawnFileActions&) = delete;

  posix_spawn_file_actions_t& get() { return actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

/// Where this process runs without standard streams a pipe may get one of their numbers, which the child's
/// own redirections would overwrite.
bool moveAboveStandardStreams(FileDescriptor& descriptor) {
  if (descriptor.get() > STDERR_FILENO) return true;
  const int moved = ::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved < 0) return false;
  descriptor.reset(moved);
  return true;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

bool makeNonBlocking(int descriptor) {
  const int flags = ::fcntl(descriptor, F_GETFL);
  return flags >= 0 && ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0;
}

int waitMilliseconds(std::chrono::milliseconds left, bool probes) {
  constexpr std::chrono::milliseconds longestPoll{24 * 3600 * 1000};
  return static_cast<int>(std::min(left, probes ? exitProbeInterval : longestPoll).count());
}

}  // namespace

Subprocess::Subprocess(const std::string& executable, const std::vector<std::string>& arguments,
                       std::vector<std::string> environment, OutputCallback onOutput, OutputCallback onError)
    : onOutput_(std::move(onOutput)), onError_(std::move(onError)) {
  auto output = makePipe();
  auto error = output ? makePipe() : std::nullopt;
  const bool usable = error && moveAboveStandardStreams(output->second) &&
                      moveAboveStandardStreams(error->second) && makeNonBlocking(output->first.get()) &&
                      makeNonBlocking(error->first.get());
  if (!usable) throw SubprocessStartError(errorText(errno));

  SpawnFileActions actions;
  ::posix_spawn_file_actions_addopen(&actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions.get(), output->second.get(), STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions.get(), error->second.get(), STDERR_FILENO);
  short flags = 0;
  closeInheritedDescriptors(actions.get(), flags);
  SpawnAttributes attributes;
  attributes.resetSignals(flags);

  std::vector<std::string> argumentTexts{executable};
  argumentTexts.insert(argumentTexts.end(), arguments.begin(), arguments.end());
  const int failure = ::posix_spawn(&pid_, executable.c_str(), &actions.get(), attributes.get(),
                                    pointersTo(argumentTexts).data(), pointersTo(environment).data());
  if (failure != 0) throw SubprocessStartError(errorText(failure));

  output_ = std::move(output->first);
  error_ = std::move(error->first);
  exit_ = openExitDescriptor(pid_);
}

Subprocess::~Subprocess() {
  if (ended_) return;
  kill();
  abandon();
}

bool Subprocess::waitForExit(Clock::time_point deadline) {
  while (!ended_) {
    if (!poll(deadline)) return false;
  }
  return true;
}

void Subprocess::drain(Clock::time_point deadline) {
  while (output_ || error_) {
    if (!poll(deadline)) return;
  }
}

void Subprocess::terminate() const { ::kill(pid_, SIGTERM); }
void Subprocess::kill() const { ::kill(pid_, SIGKILL); }

/// Waits once for output or the child's end and takes it; false when the deadline has passed.
bool Subprocess::poll(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  if (left.count() <= 0) return false;
  const bool probes = !ended_ && !exit_;
  // poll(2) passes over descriptors that are negative, as those of closed streams are.
  std::array<pollfd, 3> waited{
      {{output_.get(), POLLIN, 0}, {error_.get(), POLLIN, 0}, {ended_ ? -1 : exit_.get(), POLLIN, 0}}};
  const int ready = ::poll(waited.data(), waited.size(), waitMilliseconds(left, probes));
  if (ready < 0) return errno == EINTR;
  if (waited[0].revents != 0) take(output_, onOutput_);
  if (waited[1].revents != 0) take(error_, onError_);
  if (waited[2].revents != 0) reap(0);
  if (probes) reap(WNOHANG);
  return true;
}

void Subprocess::take(FileDescriptor& stream, const OutputCallback& callback) {
  std::array<char, std::size_t{64} * 1024> buffer;
  const ssize_t count = ::read(stream.get(), buffer.data(), buffer.size());
  if (count > 0) {
    callback({buffer.data(), static_cast<std::size_t>(count)});
  } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
    stream.reset();
  }
}

void Subprocess::reap(int options) {
  int status = 0;
  const pid_t reaped = ::waitpid(pid_, &status, options);
  if (reaped == 0 || (reaped < 0 && errno == EINTR)) return;
  ended_ = true;
  if (reaped < 0) throw SubprocessStatusError(errorText(errno));
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
}

void Subprocess::abandon() const noexcept {
  try {
    std::thread([pid = pid_] {
      while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }).detach();
  } catch (const std::system_error&) {  // no thread to be had: the zombie goes with this process
  }
}

}  // namespace quenzel::platform
