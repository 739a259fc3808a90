#pragma once

#include <string>
#include <variant>

#include "Base/ScopedResource.hpp"
#include "Platform/RequestTransport.hpp"

namespace quenzel::platform {

// The Unix stream socket on which a service is reached, unix(7). Descriptors are closed on exec.

/// "<socket directory>/<service name>.sock"
std::string serviceSocketPath(const std::string& serviceName);

/// The service's listening socket: the first Unix stream socket that the service manager passed to this
/// process (sd_listen_fds(3); non-blocking, as it came), else one bound at the service's path.
///
/// The path's folder is created where it is missing (0755), the socket is open to every user (0666), both
/// whatever the umask. A socket that nobody answers on is replaced; one that a daemon answers on is left
/// alone, and is a failure. Daemons that start at the same time settle it one after another by locking
/// "<path>.lock".
std::variant<FileDescriptor, TransportFailure> listenOnServiceSocket(const std::string& serviceName);

/// Connects to whoever listens at the path; gives up after a few seconds when its queue of connections stays
/// full.
std::variant<FileDescriptor, TransportFailure> connectToServiceSocket(const std::string& path);

}  // namespace quenzel::platform
