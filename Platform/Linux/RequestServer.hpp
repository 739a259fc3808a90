#pragma once

#include <chrono>
#include <cstddef>

#include <sys/types.h>

#include "Base/ScopedResource.hpp"
#include "Platform/RequestTransport.hpp"

namespace quenzel::platform {

/// The user at the other end of a Unix socket (SO_PEERCRED of unix(7)); (uid_t)-1 where that can't be told.
uid_t peerUser(int socket);

/// As many connections as the descriptors of this process allow, 1000 at most; takes as many descriptors as
/// the system lets it have without asking.
std::size_t connectionLimit();

/// What a server holds its clients to. No request looks at its caller; the user only counts when a server is
/// full and a connection has to be closed.
struct RequestServerLimits {
  std::size_t connections = connectionLimit();
  /// For an authentication, and for a message from its first byte to its last.
  std::chrono::milliseconds patience{5000};
  uid_t (*userOf)(int socket) = peerUser;
};

/// Serves every connection that arrives at the listening socket, on a thread of its own, for ever.
[[noreturn]] void serveConnections(int listener, RequestHandler& handler, const RequestServerLimits& limits);

}  // namespace quenzel::platform
