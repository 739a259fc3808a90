#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>
#include <semaphore>
#include <string>
#include <utility>
#include <variant>

#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "Platform/Linux/BusConnection.hpp"
#include "Platform/Linux/ConnectionTable.hpp"
#include "Platform/Linux/RequestServer.hpp"
#include "Platform/Linux/RequestStream.hpp"
#include "Platform/Linux/ServiceSocket.hpp"
#include "Platform/RequestTransport.hpp"

namespace quenzel::platform {
namespace {

// Plenty for sd-bus, the requests and their child processes; only the pages that are touched cost memory.
constexpr std::size_t connectionStackBytes = std::size_t{512} * 1024;
// Replies that a client does not read wait here, in the kernel, at the daemon's expense.
constexpr int sendBufferBytes = 64 * 1024;
constexpr std::size_t mostConnections = 1000;
constexpr rlim_t wantedDescriptors = 4096;
// The client's socket and the two ends between its stream and sd-bus; as many again stay free for the pipes
// of child processes, the log and the like.
constexpr rlim_t descriptorsPerConnection = 4;
constexpr std::size_t mostReplyTextBytes = std::size_t{64} * 1024;
constexpr int exhaustionPauseMilliseconds = 100;

/// Nothing may unwind through the C frames of sd-bus; a negative error number becomes an error reply.
template <typename Request>
int withoutThrowing(Request request) noexcept {
  try {
    return request();
  } catch (...) {
    return -ENOMEM;
  }
}

int onPing(sd_bus_message* message, void* handler, sd_bus_error*) noexcept {
  return withoutThrowing([&] {
    int sent = 0;
    static_cast<RequestHandler*>(handler)->ping(
        [&](bool ok) { sent = ::sd_bus_reply_method_return(message, "b", static_cast<int>(ok)); });
    return sent;
  });
}

/// The message cut to what a client has a use for, at the end of a character, without the NUL that would end
/// it.
std::string messageText(std::string text) {
  if (text.size() > mostReplyTextBytes) {
    std::size_t end = mostReplyTextBytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    text.resize(end);
  }
  std::replace(text.begin(), text.end(), '\0', '?');
  return text;
}

RequestHandler::OutcomeReply outcomeReply(sd_bus_message* message, int& sent) {
  return [message, &sent](bool success, const std::optional<std::string>& text) {
    std::string carried = messageText(text.value_or(""));
    const auto send = [&] {
      return ::sd_bus_reply_method_return(message, "bs", static_cast<int>(success), carried.c_str());
    };
    sent = send();
    if (sent != -EINVAL) return;
    // D-Bus takes no noncharacters (U+FFFE and its like): better a message without its letters than none.
    std::replace_if(
        carried.begin(), carried.end(), [](unsigned char byte) { return byte >= 0x80; }, '?');
    sent = send();
  };
}

int onSetLowPowerMode(sd_bus_message* message, void* handler, sd_bus_error*) noexcept {
  return withoutThrowing([&] {
    int enabled = 0;
    int sent = ::sd_bus_message_read(message, "b", &enabled);
    if (sent < 0) return sent;
    static_cast<RequestHandler*>(handler)->setLowPowerMode(enabled != 0, outcomeReply(message, sent));
    return sent;
  });
}

int onTerminateProcess(sd_bus_message* message, void* handler, sd_bus_error*) noexcept {
  return withoutThrowing([&] {
    std::int32_t pid = 0;
    int sent = ::sd_bus_message_read(message, "i", &pid);
    if (sent < 0) return sent;
    static_cast<RequestHandler*>(handler)->terminateProcess(pid, outcomeReply(message, sent));
    return sent;
  });
}

// Every local user may call every method: the handler, which is asked for each connection, decides who may do
// what.
constexpr sd_bus_vtable requestTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Ping", SD_BUS_NO_ARGS, SD_BUS_RESULT("b", ok), onPing,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("SetLowPowerMode", SD_BUS_ARGS("b", enabled),
                            SD_BUS_RESULT("b", success, "s", message), onSetLowPowerMode,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("TerminateProcess", SD_BUS_ARGS("i", pid),
                            SD_BUS_RESULT("b", success, "s", message), onTerminateProcess,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

/// The server's end of a connection: sd-bus reads what it is handed through `input` and writes to the client.
BusHandle serverConnection(FileDescriptor input, FileDescriptor client, RequestHandler& handler) {
  sd_id128_t identity{};
  if (::sd_id128_randomize(&identity) < 0) return {};
  BusHandle bus = makeBusConnection(std::move(input), std::move(client));
  if (!bus || ::sd_bus_set_server(bus.get(), 1, identity) < 0) return {};
  if (::sd_bus_add_object_vtable(bus.get(), nullptr, busObjectPath, busInterface, requestTable, &handler) <
      0) {
    return {};
  }
  if (::sd_bus_start(bus.get()) < 0) return {};
  return bus;
}

struct Server {
  RequestHandler& handler;
  const RequestServerLimits& limits;
  ConnectionTable connections;
  std::counting_semaphore<> free;

  Server(RequestHandler& requestHandler, const RequestServerLimits& serverLimits)
      : handler(requestHandler),
        limits(serverLimits),
        free(static_cast<std::ptrdiff_t>(serverLimits.connections)) {}
};

/// One client, from its authentication to its end.
class Connection {
 public:
  Connection(Server& server, FileDescriptor socket, uid_t user)
      : server_(server),
        socket_(socket.get()),
        client_(std::move(socket)),
        place_(server.connections.enter(user, socket_)) {}
  ~Connection() {
    server_.connections.leave(place_);
    bus_.reset();
    client_.reset();
    server_.free.release();
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Returns when the client leaves, breaks the protocol or a limit, or has to make room for another one.
  void serve() {
    if (!server_.handler.shouldAcceptNewConnection() || !start()) return;
    RequestStream stream(socket_, server_.limits.patience);
    while (!isReady()) {
      const std::optional<std::string> line = stream.nextLine();
      if (!line || !process(*line)) return;
    }
    std::optional<std::string> message;
    do message = stream.nextMessage();
    while (message && process(*message));
  }

 private:
  bool start() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
    feed_.reset(ends[0]);
    bus_ = serverConnection(FileDescriptor(ends[1]), std::move(client_), server_.handler);
    if (!bus_) return false;
    // sd-bus asks for 8 MB when it starts.
    ::setsockopt(socket_, SOL_SOCKET, SO_SNDBUF, &sendBufferBytes, sizeof sendBufferBytes);
    return true;
  }

  /// Whether the authentication is over.
  bool isReady() const { return ::sd_bus_is_ready(bus_.get()) > 0; }

  /// Hands sd-bus one piece of what the client sent and lets it do all that it can do with it.
  bool process(const std::string& piece) {
    // sd-bus has taken all that came before, so a piece fits.
    constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
    if (::send(feed_.get(), piece.data(), piece.size(), flags) != static_cast<ssize_t>(piece.size()))
      return false;
    for (;;) {
      if (!server_.connections.beginRequest(place_)) return false;
      const int progress = ::sd_bus_process(bus_.get(), nullptr);
      if (!server_.connections.endRequest(place_) || progress < 0) return false;
      if (progress == 0) return true;
      // A client that does not read its replies waits for itself instead of filling this process's memory
      // with them. It counts as idle meanwhile. (During the authentication a flush would wait for its end.)
      if (isReady() && ::sd_bus_flush(bus_.get()) < 0) return false;
    }
  }

  Server& server_;
  const int socket_;
  FileDescriptor client_;  ///< until the bus owns it
  FileDescriptor feed_;
  BusHandle bus_;
  const ConnectionTable::Place place_;
};

void* connectionThread(void* argument) noexcept {
  withoutThrowing([&] {
    const std::unique_ptr<Connection> connection(static_cast<Connection*>(argument));
    connection->serve();
    return 0;
  });
  ::malloc_trim(0);  // the heap would keep what a burst of connections took
  return nullptr;
}

bool startConnectionThread(Connection* connection) {
  pthread_attr_t attributes;
  if (::pthread_attr_init(&attributes) != 0) return false;
  ::pthread_attr_setstacksize(&attributes, connectionStackBytes);
  ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const bool started = ::pthread_create(&thread, &attributes, connectionThread, connection) == 0;
  ::pthread_attr_destroy(&attributes);
  return started;
}

/// Hands the connection to a thread of its own. Where as many are served as may be, another one is closed,
/// and the wait for it is short: an idle one ends at once, a busy one after its request. A connection for
/// which there is no thread or memory is closed; the client may try again and finds room then.
void serveOnThread(FileDescriptor socket, Server& server) {
  const uid_t user = server.limits.userOf(socket.get());
  if (!server.free.try_acquire()) {
    server.connections.closeOneFor(user);
    server.free.acquire();
  }
  std::unique_ptr<Connection> connection;
  try {
    connection = std::make_unique<Connection>(server, std::move(socket), user);
  } catch (const std::bad_alloc&) {
    server.free.release();
    return;
  }
  if (startConnectionThread(connection.get())) {
    static_cast<void>(connection.release());  // the thread owns it
  } else {
    connection.reset();
    server.connections.closeOneFor(user);
  }
}

/// The next connection; none when accept(2) could not give one just now.
FileDescriptor acceptConnection(int listener) {
  FileDescriptor socket(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  if (socket || errno == EINTR || errno == ECONNABORTED) return socket;
  if (errno == EAGAIN) {  // a socket from the service manager is non-blocking, and shared with it
    pollfd readable{.fd = listener, .events = POLLIN, .revents = 0};
    ::poll(&readable, 1, -1);
  } else {
    // Out of descriptors or memory, which passes. Until then the connection stays in the queue, and asking
    // for it in a loop would only burn the processor.
    ::poll(nullptr, 0, exhaustionPauseMilliseconds);
  }
  return socket;
}

}  // namespace

uid_t peerUser(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid : static_cast<uid_t>(-1);
}

std::size_t connectionLimit() {
  rlimit descriptors{};
  if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return 1;
  if (descriptors.rlim_cur < wantedDescriptors && descriptors.rlim_cur < descriptors.rlim_max) {
    descriptors.rlim_cur = std::min(wantedDescriptors, descriptors.rlim_max);
    if (::setrlimit(RLIMIT_NOFILE, &descriptors) != 0) ::getrlimit(RLIMIT_NOFILE, &descriptors);
  }
  const auto affordable = static_cast<std::size_t>(descriptors.rlim_cur / descriptorsPerConnection);
  return std::clamp(affordable, std::size_t{1}, mostConnections);
}

void serveConnections(int listener, RequestHandler& handler, const RequestServerLimits& limits) {
  // One heap for all threads: they mostly wait, and an arena for each would only cost memory.
  ::mallopt(M_ARENA_MAX, 1);
  Server server(handler, limits);
  for (;;) {
    FileDescriptor socket = acceptConnection(listener);
    if (socket) serveOnThread(std::move(socket), server);
  }
}

TransportFailure serveRequests(const std::string& serviceName, RequestHandler& handler) {
  const auto listener = listenOnServiceSocket(serviceName);
  if (const auto* failure = std::get_if<TransportFailure>(&listener)) return *failure;
  serveConnections(std::get<FileDescriptor>(listener).get(), handler, RequestServerLimits());
}

}  // namespace quenzel::platform
