#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/RequestTransport.hpp"
#include "Tests/Support/DaemonProcess.hpp"

namespace quenzel::platform {
namespace {

using testing::DaemonSurroundings;

constexpr const char* serviceName = "com.quenzel.metricsd";

class TurningAway final : public RequestHandler {
 public:
  bool shouldAcceptNewConnection() override { return false; }
  void ping(const PingReply& reply) override { reply(true); }
  void setLowPowerMode(bool, const OutcomeReply& reply) override { reply(true, std::nullopt); }
  void terminateProcess(std::int32_t, const OutcomeReply& reply) override { reply(true, std::nullopt); }
};

std::string connectionFailure() {
  const auto connection = connectToService(serviceName);
  const auto* failure = std::get_if<TransportFailure>(&connection);
  return failure ? failure->message : "connected";
}

class RequestTransportTest : public ::testing::Test {
 protected:
  DaemonSurroundings surroundings_;
  TurningAway handler_;
};

TEST_F(RequestTransportTest, SaysWhyItDoesNotServe) {
  surroundings_.folder().write("file", "");
  const std::string longFolder = surroundings_.folder() / std::string(100, 'x');
  const std::string longPath = longFolder + "/com.quenzel.metricsd.sock";
  const std::string inTheWay = surroundings_.folder().write("blocked/com.quenzel.metricsd.sock", "keep me");
  const FileDescriptor live = surroundings_.listeningSocket();
  struct Row {
    std::string socketDirectory;
    std::string message;
  };
  const Row rows[] = {
      {surroundings_.folder() / "file/below",
       "Cannot create the folder " + (surroundings_.folder() / "file/below") + ": Not a directory"},
      {longFolder, "The socket's path is too long (" + std::to_string(longPath.size()) +
                       " bytes, at most 107 fit): " + longPath},
      {surroundings_.folder() / "blocked", "Something that is not a socket is in the way: " + inTheWay},
      {surroundings_.folder() / "run/quenzel",
       "A daemon is already running at " + surroundings_.socketPath()},
  };
  for (const Row& row : rows) {
    const testing::ScopedEnvironment moved{{{"QZL_SOCKET_DIRECTORY", row.socketDirectory}}};
    EXPECT_EQ(serveRequests(serviceName, handler_).message, row.message);
  }
  EXPECT_EQ(surroundings_.folder().read("blocked/com.quenzel.metricsd.sock"), "keep me");
}

TEST_F(RequestTransportTest, SaysWhyNobodyAnswers) {
  const std::string nobody = "No daemon answers at " + surroundings_.socketPath() + ": ";
  EXPECT_EQ(connectionFailure(), nobody + "No such file or directory");
  surroundings_.listeningSocket();
  EXPECT_EQ(connectionFailure(), nobody + "Connection refused");

  const pid_t server = ::fork();
  if (server == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    serveRequests(serviceName, handler_);
    ::_exit(1);
  }
  EXPECT_TRUE(testing::eventually([&] { return connectionFailure() == nobody + "Connection reset by peer"; }))
      << connectionFailure();
  ::kill(server, SIGKILL);
  ::waitpid(server, nullptr, 0);
}

}  // namespace
}  // namespace quenzel::platform
