#include "Tests/Support/DaemonProcess.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>
#include <variant>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quenzel::testing {
namespace {

constexpr const char* serviceName = "com.quenzel.metricsd";

sockaddr_un socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("path too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

platform::FileDescriptor streamSocket() {
  return platform::FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

/// Becomes the daemon; runs in the forked child.
[[noreturn]] void becomeDaemon(const std::string& logPath, const DaemonOptions& options) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::umask(077);
  const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  ::dup2(log, STDOUT_FILENO);
  ::dup2(log, STDERR_FILENO);
  if (options.descriptorLimit != 0) {
    const rlimit limit{options.descriptorLimit, options.descriptorLimit};
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  if (options.listeningSocket >= 0) {
    const int socket = ::fcntl(options.listeningSocket, F_DUPFD, 10);
    ::dup2(socket, 3);
    ::close(socket);
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  }
  std::vector<std::string> arguments = {QUENZEL_BINARY_DIRECTORY "/QuenzelDaemon"};
  arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  ::execv(pointers.front(), pointers.data());
  ::_exit(127);
}

}  // namespace

DaemonSurroundings::DaemonSurroundings()
    : environment_({{"QZL_SOCKET_DIRECTORY", folder_ / "run/quenzel"},
                    {"QZL_SHARED_DIRECTORY", folder_ / "shared"},
                    {"QZL_TOOL_ROOT", folder_ / "tools"},
                    {"QZL_INFO_PLIST", std::nullopt},
                    {"QZL_LOG_DISABLED", std::nullopt},
                    {"QZL_LOG_LEVEL", "info"}}) {}

std::string DaemonSurroundings::socketPath() const {
  return folder_ / (std::string("run/quenzel/") + serviceName + ".sock");
}

void DaemonSurroundings::installTool(const std::string& path, const std::string& script) const {
  const std::string file = folder_.write("tools" + path, "#!/bin/sh\n" + script);
  ::chmod(file.c_str(), 0755);
}

platform::FileDescriptor DaemonSurroundings::connectSocket() const {
  const sockaddr_un address = socketAddress(socketPath());
  platform::FileDescriptor socket = streamSocket();
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    socket.reset();
  return socket;
}

platform::FileDescriptor DaemonSurroundings::listeningSocket() const {
  std::filesystem::create_directories(std::filesystem::path(socketPath()).parent_path());
  const sockaddr_un address = socketAddress(socketPath());
  platform::FileDescriptor socket = streamSocket();
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(socket.get(), 16) != 0) {
    throw std::runtime_error("can't listen on " + socketPath());
  }
  return socket;
}

DaemonProcess::DaemonProcess(const DaemonSurroundings& surroundings, const DaemonOptions& options) {
  static int started = 0;
  logPath_ = surroundings.folder() / ("daemon-" + std::to_string(++started) + ".log");
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("can't fork");
  if (pid_ == 0) becomeDaemon(logPath_, options);
}

DaemonProcess::~DaemonProcess() {
  kill();
  if (::testing::Test::HasFailure()) std::cerr << "The daemon's log:\n" << log() << std::flush;
}

std::string DaemonProcess::log() const {
  std::ifstream file(logPath_, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::unique_ptr<platform::RequestClient> DaemonProcess::connect() const {
  std::unique_ptr<platform::RequestClient> client;
  eventually([&] {
    auto connection = platform::connectToService(serviceName);
    if (auto* made = std::get_if<std::unique_ptr<platform::RequestClient>>(&connection))
      client = std::move(*made);
    return client != nullptr;
  });
  return client;
}

int DaemonProcess::exitStatus() {
  int status = 0;
  ::waitpid(std::exchange(pid_, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void DaemonProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  exitStatus();
}

std::size_t DaemonProcess::count(const std::string& what) const {
  const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid_) + "/" + what);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace quenzel::testing
