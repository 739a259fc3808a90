#include "Tests/Support/DaemonProcess.hpp"

#include <chrono>
#include <csignal>
#include <iostream>
#include <thread>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quenzel::testing {
namespace {

constexpr const char* serviceName = "com.quenzel.metricsd";

/// A socket that is bound or connected to that path.
FileDescriptor socketAt(const std::string& path, decltype(&::connect) attach) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (attach(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::system_error(errno, std::system_category(), path);
  return socket;
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
  std::filesystem::permissions(file, std::filesystem::perms(0755));
}

FileDescriptor DaemonSurroundings::connectSocket() const { return socketAt(socketPath(), ::connect); }

FileDescriptor DaemonSurroundings::listeningSocket() const {
  std::filesystem::create_directories(folder_ / "run/quenzel");
  FileDescriptor socket = socketAt(socketPath(), ::bind);
  ::listen(socket.get(), 16);
  return socket;
}

DaemonProcess::DaemonProcess(const DaemonSurroundings& surroundings, const std::string& arguments,
                             const std::string& preparation, int socket) {
  static int started = 0;
  logPath_ = surroundings.folder() / ("daemon-" + std::to_string(++started) + ".log");
  const std::string command = "umask 077; exec >'" + logPath_ + "' 2>&1\n" + preparation +
                              "\nexec '" QUENZEL_BINARY_DIRECTORY "/QuenzelDaemon' " + arguments;
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("can't fork");
  if (pid_ > 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (socket >= 0) ::dup2(::dup(socket), 3);  // open in the daemon even if it was 3 already
  ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
  ::_exit(127);
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
    if (connection.index() == 0) client = std::move(std::get<0>(connection));
    return client != nullptr;
  });
  if (!client) throw std::runtime_error("the daemon doesn't listen; its log:\n" + log());
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
