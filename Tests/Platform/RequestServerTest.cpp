#include <csignal>
#include <memory>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/ConnectionTable.hpp"
#include "Platform/Linux/RequestServer.hpp"
#include "Platform/Linux/RequestStream.hpp"
#include "Platform/SubprocessSupport.hpp"
#include "Tests/Support/DaemonProcess.hpp"

namespace quenzel::platform {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using ::testing::Optional;

constexpr const char* serviceName = "com.quenzel.metricsd";

std::pair<FileDescriptor, FileDescriptor> socketPair() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

void send(const FileDescriptor& socket, const std::string& bytes) {
  ASSERT_EQ(::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), std::ssize(bytes));
}

bool isClosed(const FileDescriptor& socket) {
  char bytes[256];
  ssize_t count = 0;
  do count = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  while (count > 0);
  return count == 0 || errno == ECONNRESET;
}

/// The fixed header of a little-endian message with so many bytes of body and of header fields.
std::string header(std::uint32_t body, std::uint32_t fields) {
  std::string bytes = "l\1\0\1"s;
  for (const std::uint32_t number : {body, 7U, fields})
    for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(number >> shift & 0xFF);
  return bytes;
}

TEST(RequestStream, ReadsTheSizeOfAMessageFromItsHeader) {
  const std::pair<std::string, std::optional<std::size_t>> rows[] = {
      {header(0, 0), 16},
      {header(3, 8), 27},
      {header(3, 9), 35},  // the fields are padded to 8
      {"B\1\0\1\0\0\1\2\0\0\0\7\0\0\0\x11"s, 16 + 24 + 258},
      {header(65536 - 16, 0), 65536},
      {header(65536 - 15, 0), std::nullopt},
      {header(65536 - 32, 17), std::nullopt},
      {header(0xFFFFFFFF, 0xFFFFFFFF), std::nullopt},  // more than 32 bits hold
      {header(0, 0).replace(0, 1, 1, 'x'), std::nullopt},
      {header(0, 0).substr(0, 15), std::nullopt},
  };
  for (const auto& [bytes, size] : rows) EXPECT_EQ(announcedMessageSize(bytes), size) << bytes;
}

TEST(RequestStream, CutsWhatArrivesIntoLinesAndThenMessages) {
  auto [client, server] = socketPair();
  RequestStream stream(server.get(), 60s);
  const std::string first = header(20, 0) + std::string(20, 'a');
  const std::string second = header(5000, 0) + std::string(5000, 'b');
  const std::string longest = std::string(4093, 'x') + "\r\n";
  send(client, "\0AUTH\r\n"s + longest + "BEGIN\r\n" + first + second.substr(0, 10));
  for (const std::string& line : {"\0AUTH\r\n"s, longest, "BEGIN\r\n"s})
    EXPECT_THAT(stream.nextLine(), Optional(line));
  EXPECT_THAT(stream.nextMessage(), Optional(first));
  send(client, second.substr(10));
  client.reset();
  EXPECT_THAT(stream.nextMessage(), Optional(second));
  EXPECT_EQ(stream.nextMessage(), std::nullopt);
}

TEST(RequestStream, EndsWithAClientThatLeavesOrGoesBeyondABound) {
  for (const std::string& bytes : {header(65536, 0), header(20, 0), "l"s, ""s}) {
    auto [client, server] = socketPair();
    RequestStream stream(server.get(), bytes == header(20, 0) ? 10ms : 60'000ms);
    send(client, bytes);
    if (bytes.size() != 16) client.reset();
    EXPECT_EQ(stream.nextMessage(), std::nullopt) << bytes.size();
  }
  const auto [client, server] = socketPair();
  send(client, std::string(4096, 'x'));
  EXPECT_EQ(RequestStream(server.get(), 60s).nextLine(), std::nullopt);
  EXPECT_EQ(RequestStream(server.get(), 10ms).nextLine(), std::nullopt) << "no time-out";
}

TEST(ConnectionTable, ClosesTheLongestIdleConnectionOfWhoHoldsMost) {
  // user, socket, busy, leaving, since
  const HeldConnection a2{1, 10, false, false, 2}, b1{2, 11, false, false, 1}, a4{1, 12, false, false, 4},
      busy1{1, 13, true, false, 1}, busy3{1, 14, true, false, 3}, leaving{1, 15, false, true, 1},
      b3{2, 16, false, false, 3};
  const std::tuple<std::list<HeldConnection>, uid_t, int> rows[] = {
      {{a4, b1, a2}, 3, 10},      {{a2, b1}, 1, 10},  // the newcomer's counts
      {{a2, b1}, 3, 11},          {{busy1, a4, b1}, 2, 11},
      {{a2, a4, b3}, 2, 10},  // two each
      {{busy1, a4, b1}, 3, 12},   {{busy3, busy1, b1}, 3, 13},
      {{leaving, a4, b1}, 3, 11},  // that which leaves counts for nobody
      {{leaving}, 3, -1},         {{}, 3, -1},
  };
  for (const auto& [held, newcomer, expected] : rows) {
    const HeldConnection* const closed = connectionToClose(held, newcomer);
    EXPECT_EQ(closed ? closed->socket : -1, expected);
  }
}

TEST(ConnectionTable, LetsABusyConnectionReplyBeforeItGoes) {
  ConnectionTable table;
  const auto [client, server] = socketPair();
  const auto [newer, newerServer] = socketPair();
  const auto place = table.enter(1, server.get());
  EXPECT_TRUE(table.beginRequest(place));
  table.closeOneFor(1);
  EXPECT_FALSE(isClosed(client));
  EXPECT_FALSE(table.endRequest(place));
  table.leave(place);

  const auto later = table.enter(1, newerServer.get());  // used later, that is
  const auto idle = table.enter(1, server.get());
  for (const auto& used : {idle, later}) {
    EXPECT_TRUE(table.beginRequest(used));
    EXPECT_TRUE(table.endRequest(used));
  }
  table.closeOneFor(1);
  EXPECT_TRUE(isClosed(client) && !isClosed(newer));
  EXPECT_FALSE(table.beginRequest(idle)) << "a request without a reply";
  table.leave(later);
  table.closeOneFor(1);
  EXPECT_FALSE(isClosed(newer)) << "it had left";
}

/// Answers at once; what it says of the power mode is what D-Bus does not carry as it stands.
struct Handler final : RequestHandler {
  bool shouldAcceptNewConnection() override { return true; }
  void ping(const PingReply& reply) override { reply(true); }
  void setLowPowerMode(bool enabled, const OutcomeReply& reply) override {
    reply(enabled, enabled ? std::string(65534, 'y').insert(0, 1, 'x') + "\u00e9" : "a\0b\uFFFE"s);
  }
  void terminateProcess(std::int32_t, const OutcomeReply& reply) override { reply(true, std::nullopt); }
};

/// A process that serves as long as this lives.
class ServerProcess {
 public:
  template <typename Serve>
  explicit ServerProcess(Serve serve) : pid_(::fork()) {
    if (pid_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    serve();
    ::_exit(1);
  }
  ~ServerProcess() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

 private:
  const pid_t pid_;
};

/// The first three connections are of user 1, the fourth of user 2, the many that follow of user 3.
uid_t userByArrival(int) {
  static int arrived = 0;
  ++arrived;
  return arrived <= 3 ? 1 : arrived == 4 ? 2 : 3;
}

std::unique_ptr<RequestClient> connect() {
  return std::move(std::get<std::unique_ptr<RequestClient>>(connectToService(serviceName)));
}

bool answers(RequestClient& client) { return client.ping().index() == 0; }

TEST(RequestServer, NobodyKeepsAnotherUserOut) {
  const testing::DaemonSurroundings surroundings;
  const FileDescriptor listener = surroundings.listeningSocket();
  Handler handler;
  const ServerProcess server(
      [&] { serveConnections(listener.get(), handler, {.connections = 8, .userOf = userByArrival}); });
  std::vector<std::unique_ptr<RequestClient>> calm;
  for (int i = 0; i < 4; ++i) calm.push_back(connect());
  std::vector<FileDescriptor> flood;
  for (int i = 0; i < 50; ++i) flood.push_back(surroundings.connectSocket());
  auto newest = connect();
  EXPECT_TRUE(answers(*newest));
  for (const auto& client : calm) EXPECT_TRUE(answers(*client));
  EXPECT_EQ(std::count_if(flood.begin(), flood.end(), isClosed), 50 - 3);
}

TEST(RequestServer, EndsWhoBreaksTheProtocolAndRepliesWithWhatDBusCarries) {
  const testing::DaemonSurroundings surroundings;
  const FileDescriptor listener = surroundings.listeningSocket();
  Handler handler;
  const ServerProcess server([&] { serveConnections(listener.get(), handler, {.patience = 50ms}); });
  const auto client = connect();
  const std::string authenticated = "\0AUTH ANONYMOUS\r\nBEGIN\r\n"s;
  for (const std::string& bytes : {"\0AUTH ANONY"s, authenticated + std::string(4096, 'x'),
                                   authenticated + header(4, 0).substr(0, 12)}) {
    const FileDescriptor socket = surroundings.connectSocket();
    send(socket, bytes);
    EXPECT_TRUE(testing::eventually([&] { return isClosed(socket); })) << bytes.substr(0, 50);
  }
  const auto longText = std::get<RequestReply>(client->setLowPowerMode(true));
  EXPECT_TRUE(longText.success && longText.message == std::string(65534, 'y').insert(0, 1, 'x'));
  EXPECT_EQ(std::get<RequestReply>(client->setLowPowerMode(false)).message, "a?b???");
}

TEST(RequestServer, TellsWhoConnects) {
  const auto [client, server] = socketPair();
  EXPECT_EQ(peerUser(server.get()), ::getuid());
  EXPECT_EQ(peerUser(-1), static_cast<uid_t>(-1));
}

TEST(RequestTransport, SaysWhyItDoesNotServe) {
  const testing::DaemonSurroundings surroundings;
  const auto& folder = surroundings.folder();
  const std::string file = folder.write("blocked/com.quenzel.metricsd.sock", "keep me");
  const std::string longFolder = folder / std::string(100, 'x');
  const std::pair<std::string, std::string> rows[] = {
      {longFolder, fmt::format("The socket's path is too long ({} bytes, at most 107 fit): {}",
                               longFolder.size() + 26, longFolder + "/com.quenzel.metricsd.sock")},
      {folder / "blocked", "Something that is not a socket is in the way: " + file},
  };
  Handler handler;
  for (const auto& [socketDirectory, message] : rows) {
    const testing::ScopedEnvironment moved{{{"QZL_SOCKET_DIRECTORY", socketDirectory}}};
    EXPECT_EQ(serveRequests(serviceName, handler).message, message);
  }
  EXPECT_EQ(folder.read("blocked/com.quenzel.metricsd.sock"), "keep me");
}

}  // namespace
}  // namespace quenzel::platform
