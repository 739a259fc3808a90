#include "Platform/ChildProcess.hpp"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <spawn.h>

#include "Platform/ChildProcessSupport.hpp"

namespace quenzel::platform {
namespace {

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

}  // namespace

std::variant<ChildProcess, SpawnFailure> spawnChild(const std::string& executable,
                                                    const std::vector<std::string>& arguments,
                                                    std::vector<std::string> environment) {
  auto output = makePipe();
  auto error = output ? makePipe() : std::nullopt;
  const bool usable = error && moveAboveStandardStreams(output->second) &&
                      moveAboveStandardStreams(error->second) && makeNonBlocking(output->first.get()) &&
                      makeNonBlocking(error->first.get());
  if (!usable) return SpawnFailure{errno};

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
  ChildProcess child;
  const int failure = ::posix_spawn(&child.pid, executable.c_str(), &actions.get(), attributes.get(),
                                    pointersTo(argumentTexts).data(), pointersTo(environment).data());
  if (failure != 0) return SpawnFailure{failure};

  child.standardOutput = std::move(output->first);
  child.standardError = std::move(error->first);
  child.exit = openExitDescriptor(child.pid);
  return child;
}

}  // namespace quenzel::platform
