#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace quenzel::platform {

/// Takes the requests of every connection. Calls arrive on the connections' own threads, those of one
/// connection one after another, those of different connections side by side; an implementation calls each
/// reply exactly once, on the calling thread, before it returns, and throws nothing.
class RequestHandler {
 public:
  using PingReply = std::function<void(bool ok)>;
  using OutcomeReply = std::function<void(bool success, const std::optional<std::string>& message)>;

  virtual ~RequestHandler() = default;

  /// Asked once for every new connection; false turns it away.
  virtual bool shouldAcceptNewConnection() = 0;

  virtual void ping(const PingReply& reply) = 0;
  virtual void setLowPowerMode(bool enabled, const OutcomeReply& reply) = 0;
  virtual void terminateProcess(std::int32_t pid, const OutcomeReply& reply) = 0;
};

/// How long a client waits for a reply.
inline constexpr std::chrono::seconds requestReplyTimeout{60};

/// Something that kept the transport from working, in words for a person.
struct TransportFailure {
  std::string message;
};

/// Listens under the service name and hands every request to the handler, for ever.
/// macOS: an NSXPCListener on the Mach service. Linux: D-Bus messages, peer to peer, on the Unix socket
/// "<socket directory>/<service name>.sock" (mode 0666), or on the socket that systemd's activation passes.
/// Returns only when listening fails; idle connections cost no wake-ups. macOS tells nothing of a failed
/// check-in: a process that launchd did not start for that very name waits for ever and no client arrives.
TransportFailure serveRequests(const std::string& serviceName, RequestHandler& handler);

/// The reply to one request.
struct RequestReply {
  bool success = false;
  std::optional<std::string> message;
};
using RequestResult = std::variant<RequestReply, TransportFailure>;

/// The client's end of one connection. Each call blocks until the reply or a failure, and gives up after
/// requestReplyTimeout; not thread-safe.
class RequestClient {
 public:
  virtual ~RequestClient() = default;

  virtual RequestResult ping() = 0;
  virtual RequestResult setLowPowerMode(bool enabled) = 0;
  virtual RequestResult terminateProcess(std::int32_t pid) = 0;
};

/// Connects to the daemon that serves the name.
std::variant<std::unique_ptr<RequestClient>, TransportFailure> connectToService(
    const std::string& serviceName);

}  // namespace quenzel::platform
