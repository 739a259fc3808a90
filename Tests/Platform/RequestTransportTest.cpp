#include <csignal>
#include <variant>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/RequestTransport.hpp"
#include "Tests/Support/DaemonProcess.hpp"

namespace quenzel::platform {
namespace {

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

TEST(RequestTransportTest, SaysWhyItDoesNotServe) {
  const testing::DaemonSurroundings surroundings;
  const auto& folder = surroundings.folder();
  folder.write("file", "");
  const std::string longFolder = folder / std::string(100, 'x');
  const std::string longPath = longFolder + "/com.quenzel.metricsd.sock";
  const std::string inTheWay = folder.write("blocked/com.quenzel.metricsd.sock", "keep me");
  const FileDescriptor live = surroundings.listeningSocket();
  const std::pair<std::string, std::string> rows[] = {
      {folder / "file/below", "Cannot create the folder " + (folder / "file/below") + ": Not a directory"},
      {longFolder, "The socket's path is too long (" + std::to_string(longPath.size()) +
                       " bytes, at most 107 fit): " + longPath},
      {folder / "blocked", "Something that is not a socket is in the way: " + inTheWay},
      {folder / "run/quenzel", "A daemon is already running at " + surroundings.socketPath()},
  };
  TurningAway handler;
  for (const auto& [socketDirectory, message] : rows) {
    const testing::ScopedEnvironment moved{{{"QZL_SOCKET_DIRECTORY", socketDirectory}}};
    EXPECT_EQ(serveRequests(serviceName, handler).message, message);
  }
  EXPECT_EQ(folder.read("blocked/com.quenzel.metricsd.sock"), "keep me");
}

TEST(RequestTransportTest, SaysWhyNobodyAnswers) {
  const testing::DaemonSurroundings surroundings;
  const std::string nobody = "No daemon answers at " + surroundings.socketPath() + ": ";
  EXPECT_EQ(connectionFailure(), nobody + "No such file or directory");
  surroundings.listeningSocket();
  EXPECT_EQ(connectionFailure(), nobody + "Connection refused");

  const pid_t server = ::fork();
  if (server == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    TurningAway handler;
    serveRequests(serviceName, handler);
    ::_exit(1);
  }
  EXPECT_TRUE(testing::eventually([&] { return connectionFailure() == nobody + "Connection reset by peer"; }))
      << connectionFailure();
  ::kill(server, SIGKILL);
  ::waitpid(server, nullptr, 0);
}

}  // namespace
}  // namespace quenzel::platform
