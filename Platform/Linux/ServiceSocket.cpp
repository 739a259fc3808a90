#include "Platform/Linux/ServiceSocket.hpp"

#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include "Base/Environment.hpp"
#include "Base/ErrorText.hpp"
#include "Platform/Settings.hpp"

namespace quenzel::platform {
namespace {

constexpr time_t connectTimeoutSeconds = 5;

TransportFailure cannot(std::string_view deed, const std::string& path, int error) {
  return {fmt::format("Cannot {} {}: {}", deed, path, errorText(error))};
}

TransportFailure tooLong(const std::string& path) {
  return {fmt::format("The socket's path is too long ({} bytes, at most {} fit): {}", path.size(),
                      sizeof(sockaddr_un::sun_path) - 1, path)};
}

/// None when the path does not fit.
std::optional<sockaddr_un> socketAddress(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return std::nullopt;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

const sockaddr* generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

FileDescriptor streamSocket() { return FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

/// 0, or the error number.
int connectSocket(int socket, const sockaddr_un& address) {
  // The send time-out is what bounds a connect to a listener whose queue is full.
  const timeval timeout{.tv_sec = connectTimeoutSeconds, .tv_usec = 0};
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  while (::connect(socket, generic(address), sizeof address) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

FileDescriptor activatedSocket() {
  const int passed = ::sd_listen_fds(0);
  FileDescriptor found;
  for (int descriptor = SD_LISTEN_FDS_START; descriptor < SD_LISTEN_FDS_START + passed; ++descriptor) {
    if (::sd_is_socket(descriptor, AF_UNIX, SOCK_STREAM, 1) > 0) {
      found.reset(descriptor);
      break;
    }
  }
  for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"})
    setEnvironmentValue(name, std::nullopt);
  return found;
}

/// Creates the folder and its parents; 0, or the error number.
int makeFolders(const std::string& folder) {
  for (std::size_t slash = folder.find('/', 1);; slash = folder.find('/', slash + 1)) {
    const std::string part = folder.substr(0, slash);
    if (::mkdir(part.c_str(), 0755) == 0) {
      if (::chmod(part.c_str(), 0755) != 0) return errno;  // the umask may have taken bits away
    } else if (errno != EEXIST) {
      return errno;
    }
    if (slash == std::string::npos) return 0;
  }
}

/// Waits for the lock that is held while a daemon makes its socket; released when the descriptor is closed.
FileDescriptor lockSocketPath(const std::string& path) {
  FileDescriptor lock(::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  while (lock && ::flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) lock.reset();
  }
  return lock;
}

bool isSocket(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

/// What stands against taking the path of a socket that exists: a daemon that answers there, or one that
/// can't be asked.
std::optional<TransportFailure> someoneListens(const sockaddr_un& address, const std::string& path) {
  const FileDescriptor probe = streamSocket();
  const int error = probe ? connectSocket(probe.get(), address) : errno;
  if (error == ECONNREFUSED || error == ENOENT) return std::nullopt;
  if (error == 0 || error == EAGAIN)
    return TransportFailure{fmt::format("A daemon is already running at {}", path)};
  return cannot("find out who listens at", path, error);
}

std::optional<TransportFailure> bindSocket(int socket, const sockaddr_un& address, const std::string& path) {
  if (::bind(socket, generic(address), sizeof address) == 0) return std::nullopt;
  if (errno != EADDRINUSE) return cannot("bind the socket", path, errno);
  if (!isSocket(path))
    return TransportFailure{fmt::format("Something that is not a socket is in the way: {}", path)};
  if (auto failure = someoneListens(address, path)) return failure;
  ::unlink(path.c_str());
  if (::bind(socket, generic(address), sizeof address) == 0) return std::nullopt;
  return cannot("bind the socket", path, errno);
}

}  // namespace

std::string serviceSocketPath(const std::string& serviceName) {
  return fmt::format("{}/{}.sock", socketDirectory(), serviceName);
}

std::variant<FileDescriptor, TransportFailure> listenOnServiceSocket(const std::string& serviceName) {
  if (FileDescriptor passed = activatedSocket(); passed) return passed;

  if (serviceName.find('/') != std::string::npos) {
    return TransportFailure{"The service's name must not hold a \"/\": " + serviceName};
  }
  const std::string path = serviceSocketPath(serviceName);
  const std::optional<sockaddr_un> address = socketAddress(path);
  if (!address) return tooLong(path);
  if (const int error = makeFolders(socketDirectory()))
    return cannot("create the folder", socketDirectory(), error);
  const FileDescriptor lock = lockSocketPath(path);
  if (!lock) return cannot("lock", path + ".lock", errno);

  FileDescriptor socket = streamSocket();
  if (!socket) return cannot("create the socket", path, errno);
  if (auto failure = bindSocket(socket.get(), *address, path)) return *failure;
  if (::chmod(path.c_str(), 0666) != 0) return cannot("open to everyone", path, errno);
  if (::listen(socket.get(), SOMAXCONN) != 0) return cannot("listen on", path, errno);
  return socket;
}

std::variant<FileDescriptor, TransportFailure> connectToServiceSocket(const std::string& path) {
  const std::optional<sockaddr_un> address = socketAddress(path);
  if (!address) return tooLong(path);
  FileDescriptor socket = streamSocket();
  const int error = socket ? connectSocket(socket.get(), *address) : errno;
  if (error != 0) return TransportFailure{fmt::format("No daemon answers at {}: {}", path, errorText(error))};
  return socket;
}

}  // namespace quenzel::platform
