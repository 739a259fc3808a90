#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>
#include <variant>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "Base/Environment.hpp"
#include "Platform/RequestTransport.hpp"

// A ping through the real transport against the least that sd-bus itself can do: one connection on a socket
// pair with one method of the same shape. Both servers are processes of their own, and the two are asked in
// turn, so that whatever else the machine does falls on both.

namespace {

using namespace quenzel::platform;
using Clock = std::chrono::steady_clock;

constexpr const char* serviceName = "com.quenzel.benchmark";

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "ping benchmark: %s failed\n", what);
  std::exit(1);
}

void require(bool fine, const char* what) {
  if (!fine) fail(what);
}

/// Runs the server in a child process that ends with this one.
template <typename Server>
class ServerProcess {
 public:
  explicit ServerProcess(Server server) : pid_(::fork()) {
    require(pid_ >= 0, "fork");
    if (pid_ > 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    server();
    ::_exit(1);
  }
  ~ServerProcess() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

 private:
  pid_t pid_;
};

class AlwaysReady final : public RequestHandler {
 public:
  bool shouldAcceptNewConnection() override { return true; }
  void ping(const PingReply& reply) override { reply(true); }
  void setLowPowerMode(bool, const OutcomeReply& reply) override { reply(true, std::nullopt); }
  void terminateProcess(std::int32_t, const OutcomeReply& reply) override { reply(true, std::nullopt); }
};

int answerBarePing(sd_bus_message* message, void*, sd_bus_error*) {
  return ::sd_bus_reply_method_return(message, "b", 1);
}

constexpr sd_bus_vtable bareTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Ping", "", "b", answerBarePing, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

sd_bus* bareConnection(int socket) {
  sd_bus* bus = nullptr;
  require(::sd_bus_new(&bus) >= 0 && ::sd_bus_set_fd(bus, socket, socket) >= 0, "connection");
  require(::sd_bus_set_anonymous(bus, 1) >= 0, "anonymous authentication");
  return bus;
}

void serveBare(int socket) {
  sd_bus* bus = bareConnection(socket);
  sd_id128_t identity{};
  require(::sd_id128_randomize(&identity) >= 0 && ::sd_bus_set_server(bus, 1, identity) >= 0, "server");
  require(::sd_bus_add_object_vtable(bus, nullptr, "/echo", "echo.Echo", bareTable, nullptr) >= 0, "vtable");
  require(::sd_bus_start(bus) >= 0, "start");
  for (int progress = 0; progress >= 0;) {
    progress = ::sd_bus_process(bus, nullptr);
    if (progress == 0) progress = ::sd_bus_wait(bus, UINT64_MAX);
  }
}

void pingBare(sd_bus* bus) {
  sd_bus_message* reply = nullptr;
  int ok = 0;
  require(::sd_bus_call_method(bus, nullptr, "/echo", "echo.Echo", "Ping", nullptr, &reply, "") >= 0,
          "bare ping");
  require(::sd_bus_message_read(reply, "b", &ok) >= 0 && ok == 1, "bare reply");
  ::sd_bus_message_unref(reply);
}

std::unique_ptr<RequestClient> connectedClient() {
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    auto connection = connectToService(serviceName);
    if (auto* client = std::get_if<std::unique_ptr<RequestClient>>(&connection)) return std::move(*client);
    ::usleep(1000);
  }
  fail("connecting to the server");
}

/// The value below which that share of the sorted values lies.
double percentile(const std::vector<double>& sorted, double share) {
  return sorted[std::min(sorted.size() - 1,
                         static_cast<std::size_t>(share * static_cast<double>(sorted.size())))];
}

template <typename Action>
double secondsOf(Action action) {
  const auto start = Clock::now();
  action();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void pingAgainstBareEcho(benchmark::State& state) {
  char folder[] = "/tmp/quenzel-ping-XXXXXX";
  require(::mkdtemp(folder) != nullptr, "mkdtemp");
  quenzel::setEnvironmentValue("QZL_SOCKET_DIRECTORY", folder);
  int sockets[2];
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) == 0, "socketpair");
  {
    const ServerProcess bareServer([&] {
      ::close(sockets[0]);
      serveBare(sockets[1]);
    });
    const ServerProcess server([] {
      AlwaysReady handler;
      serveRequests(serviceName, handler);
    });
    ::close(sockets[1]);
    sd_bus* bare = bareConnection(sockets[0]);
    require(::sd_bus_start(bare) >= 0, "start");
    pingBare(bare);
    const std::unique_ptr<RequestClient> client = connectedClient();

    std::vector<double> pings;
    std::vector<double> barePings;
    for ([[maybe_unused]] auto _ : state) {
      barePings.push_back(secondsOf([&] { pingBare(bare); }));
      pings.push_back(secondsOf([&] { require(std::get<RequestReply>(client->ping()).success, "ping"); }));
      state.SetIterationTime(pings.back());
    }
    ::sd_bus_close_unref(bare);
    std::sort(pings.begin(), pings.end());
    std::sort(barePings.begin(), barePings.end());
    const double median = percentile(pings, 0.5);
    state.counters["p50_us"] = median * 1e6;
    state.counters["p99_us"] = percentile(pings, 0.99) * 1e6;
    state.counters["bare_p50_us"] = percentile(barePings, 0.5) * 1e6;
    state.counters["bare_p99_us"] = percentile(barePings, 0.99) * 1e6;
    state.counters["p50_over_bare"] = median / percentile(barePings, 0.5);
    state.counters["p99_over_p50"] = percentile(pings, 0.99) / median;
  }
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}
BENCHMARK(pingAgainstBareEcho)->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(1.0);

}  // namespace
