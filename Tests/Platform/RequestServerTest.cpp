#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/ChildProcessSupport.hpp"
#include "Platform/Linux/ConnectionTable.hpp"
#include "Platform/Linux/RequestServer.hpp"
#include "Platform/Linux/RequestStream.hpp"
#include "Tests/Support/DaemonProcess.hpp"

namespace quenzel::platform {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::Optional;

std::pair<FileDescriptor, FileDescriptor> socketPair() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

void send(const FileDescriptor& socket, const std::string& bytes) {
  ASSERT_EQ(::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), std::ssize(bytes));
}

bool isClosed(const FileDescriptor& socket) {
  char byte = 0;
  return ::recv(socket.get(), &byte, 1, MSG_DONTWAIT) == 0;
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
      {"x" + header(0, 0).substr(1), std::nullopt},
      {header(0, 0).substr(1), std::nullopt},
  };
  for (const auto& [bytes, size] : rows) EXPECT_EQ(announcedMessageSize(bytes), size) << bytes;
}

TEST(RequestStream, CutsWhatArrivesIntoLinesAndThenMessages) {
  const auto [client, server] = socketPair();
  RequestStream stream(server.get(), 60s);
  const std::string first = header(20, 0) + std::string(20, 'a');
  const std::string second = header(5000, 0) + std::string(5000, 'b');
  send(client, "\0AUTH\r\nBEGIN\r\n"s + first + second.substr(0, 10));
  EXPECT_THAT(stream.nextLine(), Optional("\0AUTH\r\n"s));
  EXPECT_THAT(stream.nextLine(), Optional("BEGIN\r\n"s));
  EXPECT_THAT(stream.nextMessage(), Optional(first));
  send(client, second.substr(10));
  EXPECT_THAT(stream.nextMessage(), Optional(second));
}

TEST(RequestStream, EndsWithAClientThatLeavesOrGoesBeyondABound) {
  for (const std::string& bytes : {header(65536, 0), header(20, 0), "l"s, ""s}) {
    auto [client, server] = socketPair();
    RequestStream stream(server.get(), bytes.size() == 16 ? 50ms : 60'000ms);
    send(client, bytes);
    if (bytes.size() != 16) client.reset();
    EXPECT_EQ(stream.nextMessage(), std::nullopt) << bytes.size();
  }
  const auto [client, server] = socketPair();
  send(client, std::string(4096, 'x'));
  EXPECT_EQ(RequestStream(server.get(), 60s).nextLine(), std::nullopt);
  EXPECT_EQ(RequestStream(server.get(), 50ms).nextLine(), std::nullopt) << "no time-out";
}

TEST(RequestStream, LetsAClientBeSilentBetweenMessagesButNotInOne) {
  const auto [client, server] = socketPair();
  RequestStream stream(server.get(), 50ms);
  const std::string message = header(4, 0) + "body";
  std::thread late([&client = client, &message] {
    std::this_thread::sleep_for(150ms);  // three times as long as a message may take
    send(client, message + message.substr(0, 19));
  });
  EXPECT_THAT(stream.nextMessage(), Optional(message));
  EXPECT_EQ(stream.nextMessage(), std::nullopt);
  late.join();
}

TEST(ConnectionTable, ClosesTheLongestIdleConnectionOfWhoHoldsMost) {
  // user, socket, busy, leaving, since
  using Connections = std::list<HeldConnection>;
  const struct {
    Connections held;
    uid_t newcomer;
    int closed;
  } rows[] = {
      {{{1, 10, false, false, 5}, {2, 11, false, false, 1}, {1, 12, false, false, 4}}, 3, 12},
      {{{1, 10, false, false, 2}, {2, 11, false, false, 1}}, 1, 10},  // the newcomer's counts
      {{{1, 10, false, false, 2}, {2, 11, false, false, 1}}, 3, 11},
      {{{1, 10, true, false, 1}, {1, 11, false, false, 9}, {2, 12, false, false, 2}}, 2, 12},
      {{{1, 10, true, false, 1}, {1, 11, false, false, 9}, {2, 12, false, false, 2}}, 3, 11},
      {{{1, 10, true, false, 3}, {1, 11, true, false, 2}, {2, 12, false, false, 1}}, 3, 11},
      {{{1, 10, false, true, 1}, {1, 11, false, false, 3}, {2, 12, false, false, 2}}, 3, 12},
      {{{1, 10, false, true, 1}}, 3, -1},
      {{}, 3, -1},
  };
  for (const auto& row : rows) {
    const HeldConnection* const closed = connectionToClose(row.held, row.newcomer);
    EXPECT_EQ(closed ? closed->socket : -1, row.closed) << &row - rows;
  }
}

TEST(ConnectionTable, LetsABusyConnectionReplyBeforeItGoes) {
  ConnectionTable table;
  const auto [client, server] = socketPair();
  const auto place = table.enter(1, server.get());
  EXPECT_TRUE(table.beginRequest(place));
  table.closeOneFor(1);
  EXPECT_FALSE(isClosed(client));
  EXPECT_FALSE(table.endRequest(place));
  table.leave(place);

  const auto idle = table.enter(1, server.get());
  EXPECT_TRUE(table.beginRequest(idle));
  EXPECT_TRUE(table.endRequest(idle));
  table.closeOneFor(1);
  EXPECT_TRUE(isClosed(client));
  EXPECT_FALSE(table.beginRequest(idle)) << "a request without a reply";
}

/// Answers pings at once, and a request to end a process after it has said so and that many milliseconds.
class Patient final : public RequestHandler {
 public:
  explicit Patient(const FileDescriptor& begun) : begun_(begun) {}
  bool shouldAcceptNewConnection() override { return true; }
  void ping(const PingReply& reply) override { reply(true); }
  void setLowPowerMode(bool, const OutcomeReply& reply) override { reply(true, std::nullopt); }
  void terminateProcess(std::int32_t milliseconds, const OutcomeReply& reply) override {
    const bool told = ::write(begun_.get(), "b", 1) == 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    reply(told, std::nullopt);
  }

 private:
  const FileDescriptor& begun_;
};

/// The first three connections are of user 1, the fourth of user 2, the many that follow of user 3.
uid_t userByArrival(int) {
  static int arrived = 0;
  ++arrived;
  return arrived <= 3 ? 1 : arrived == 4 ? 2 : 3;
}

bool answers(RequestClient& client) { return client.ping().index() == 0; }

TEST(RequestServer, NobodyKeepsAnotherUserOut) {
  const testing::DaemonSurroundings surroundings;
  const FileDescriptor listener = surroundings.listeningSocket();
  const auto begun = makePipe().value();
  const pid_t server = ::fork();
  if (server == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    Patient handler(begun.second);
    RequestServerLimits limits;
    limits.connections = 8;
    limits.userOf = userByArrival;
    serveConnections(listener.get(), handler, limits);
  }
  const auto connect = [] {
    return std::move(std::get<std::unique_ptr<RequestClient>>(connectToService("com.quenzel.metricsd")));
  };
  std::vector<std::unique_ptr<RequestClient>> calm;
  for (int i = 0; i < 4; ++i) calm.push_back(connect());
  std::vector<FileDescriptor> flood;
  for (int i = 0; i < 50; ++i) flood.push_back(surroundings.connectSocket());
  auto newest = connect();
  EXPECT_TRUE(answers(*newest));
  for (const auto& client : calm) EXPECT_TRUE(answers(*client));
  EXPECT_EQ(std::count_if(flood.begin(), flood.end(), isClosed), 50 - 3);

  // All of the flood's are busy: the newcomer waits for the first to be done, and its reply still arrives.
  flood.clear();
  newest.reset();
  std::atomic<int> replies = 0;
  std::vector<std::thread> requests;
  for (int i = 0; i < 4; ++i) {
    requests.emplace_back([&replies, client = std::shared_ptr(connect())] {
      replies += client->terminateProcess(100).index() == 0 ? 1 : 0;
    });
    char byte = 0;
    ASSERT_EQ(::read(begun.first.get(), &byte, 1), 1);
  }
  EXPECT_TRUE(answers(*connect()));
  for (std::thread& request : requests) request.join();
  EXPECT_EQ(replies, 4);
  for (const auto& client : calm) EXPECT_TRUE(answers(*client));
  ::kill(server, SIGKILL);
  ::waitpid(server, nullptr, 0);
}

TEST(RequestServer, TellsWhoConnects) {
  const auto [client, server] = socketPair();
  EXPECT_EQ(peerUser(server.get()), ::getuid());
  EXPECT_EQ(peerUser(-1), static_cast<uid_t>(-1));
}

}  // namespace
}  // namespace quenzel::platform
