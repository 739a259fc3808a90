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
#include "Platform/Linux/ServiceSocket.hpp"
#include "Platform/RequestTransport.hpp"

namespace quenzel::platform {
namespace {

// Plenty for sd-bus, the requests and their child processes; only the pages that are touched cost memory.
constexpr std::size_t connectionStackBytes = std::size_t{512} * 1024;
// Replies that a client does not read wait here, in the kernel, at the daemon's expense.
constexpr int sendBufferBytes = 64 * 1024;
constexpr rlim_t mostConnections = 1000;
constexpr rlim_t wantedDescriptors = 2048;
constexpr std::size_t mostMessageBytes = std::size_t{64} * 1024;
constexpr int exhaustionPauseMilliseconds = 100;

using ConnectionSlots = std::counting_semaphore<mostConnections>;

/// A quarter of the descriptors stays free for the pipes of child processes, the log and the like. Takes as
/// many as the system lets it have without asking.
std::ptrdiff_t connectionLimit() {
  rlimit descriptors{};
  if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return 1;
  if (descriptors.rlim_cur < wantedDescriptors && descriptors.rlim_cur < descriptors.rlim_max) {
    descriptors.rlim_cur = std::min(wantedDescriptors, descriptors.rlim_max);
    if (::setrlimit(RLIMIT_NOFILE, &descriptors) != 0) ::getrlimit(RLIMIT_NOFILE, &descriptors);
  }
  return static_cast<std::ptrdiff_t>(std::min(descriptors.rlim_cur / 4 * 3, mostConnections));
}

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
  if (text.size() > mostMessageBytes) {
    std::size_t end = mostMessageBytes;
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

// Every local user may call every method: who may do what is decided by the handler, which is asked for each
// connection.
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

BusPointer serverConnection(FileDescriptor socket, RequestHandler& handler) {
  sd_id128_t identity{};
  if (::sd_id128_randomize(&identity) < 0) return nullptr;
  BusPointer bus = makeBusConnection(std::move(socket));
  if (!bus || ::sd_bus_set_server(bus.get(), 1, identity) < 0) return nullptr;
  if (::sd_bus_add_object_vtable(bus.get(), nullptr, busObjectPath, busInterface, requestTable, &handler) <
      0) {
    return nullptr;
  }
  return bus;
}

/// Serves one connection until its peer leaves, talks nonsense or does not finish authenticating.
void serveConnection(FileDescriptor socket, RequestHandler& handler) {
  if (!handler.shouldAcceptNewConnection()) return;
  const int descriptor = socket.get();
  const BusPointer bus = serverConnection(std::move(socket), handler);
  if (!bus || startBusConnection(bus.get()) < 0) return;
  // sd-bus asks for 8 MB when it starts.
  ::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &sendBufferBytes, sizeof sendBufferBytes);
  for (int progress = 0; progress >= 0;) {
    progress = ::sd_bus_process(bus.get(), nullptr);
    if (progress == 0) progress = waitForBusConnection(bus.get());
    // A client that does not read its replies waits for itself instead of filling this process's memory with
    // them.
    else if (progress > 0)
      progress = ::sd_bus_flush(bus.get());
  }
}

struct Connection {
  FileDescriptor socket;
  RequestHandler& handler;
  ConnectionSlots& slots;
};

void* connectionThread(void* argument) noexcept {
  const std::unique_ptr<Connection> connection(static_cast<Connection*>(argument));
  withoutThrowing([&] {
    serveConnection(std::move(connection->socket), connection->handler);
    return 0;
  });
  connection->slots.release();
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

/// Hands the connection to a thread of its own, or closes it at once: when there are as many as may be, no
/// thread is to be had, or no memory. The client sees its connection end and may try again.
void serveOnThread(FileDescriptor socket, RequestHandler& handler, ConnectionSlots& slots) {
  if (!slots.try_acquire()) return;
  std::unique_ptr<Connection> connection(new (std::nothrow) Connection{std::move(socket), handler, slots});
  if (connection && startConnectionThread(connection.get())) {
    static_cast<void>(connection.release());  // the thread owns it
  } else {
    slots.release();
  }
}

/// The next connection; none when accept(2) could not give one just now.
FileDescriptor acceptConnection(int listener) {
  FileDescriptor socket(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  if (socket.valid() || errno == EINTR || errno == ECONNABORTED) return socket;
  if (errno == EAGAIN) {  // a socket from the service manager is non-blocking, and shared with it
    pollfd readable{.fd = listener, .events = POLLIN, .revents = 0};
    ::poll(&readable, 1, -1);
  } else {
    // Out of descriptors or memory, which passes when somebody else lets go of some: until then the
    // connection stays in the queue, and asking for it in a loop would only burn the processor.
    ::poll(nullptr, 0, exhaustionPauseMilliseconds);
  }
  return socket;
}

}  // namespace

TransportFailure serveRequests(const std::string& serviceName, RequestHandler& handler) {
  auto listener = listenOnServiceSocket(serviceName);
  if (auto* failure = std::get_if<TransportFailure>(&listener)) return *failure;

  // One heap for all threads: they mostly wait, and an arena for each would only cost memory.
  ::mallopt(M_ARENA_MAX, 1);
  ConnectionSlots slots(connectionLimit());
  for (;;) {
    FileDescriptor socket = acceptConnection(std::get<FileDescriptor>(listener).get());
    if (socket.valid()) serveOnThread(std::move(socket), handler, slots);
  }
}

}  // namespace quenzel::platform
