#include <algorithm>
#include <csignal>
#include <future>
#include <variant>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/SubprocessSupport.hpp"
#include "Tests/Support/Command.hpp"
#include "Tests/Support/DaemonProcess.hpp"

namespace quenzel {
namespace {

using namespace ::testing;
using namespace quenzel::testing;

/// "success / message" of a reply, or why there was none.
std::string described(const platform::RequestResult& result) {
  if (const auto* failure = std::get_if<platform::TransportFailure>(&result))
    return "failure: " + failure->message;
  const auto& reply = std::get<platform::RequestReply>(result);
  return (reply.success ? "true / " : "false / ") + reply.message.value_or("(none)");
}

/// Whether the peer closes the connection within that time.
bool isClosedByPeer(const FileDescriptor& socket, int milliseconds) {
  pollfd readable{.fd = socket.get(), .events = POLLIN, .revents = 0};
  return ::poll(&readable, 1, milliseconds) == 1 && (readable.revents & POLLHUP) != 0;
}

/// A child of this process that answers its start and each SIGTERM with a byte on a pipe and lives on.
/// Killed, it stays a zombie until it is reaped here, so ending it takes the whole of both waits: 0.7
/// seconds.
class StubbornChild {
 public:
  StubbornChild() : pid_(::fork()) { pid_ == 0 ? answerForever() : awaitReport(); }
  ~StubbornChild() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

  pid_t pid() const { return pid_; }
  /// Blocks until it has had a SIGTERM.
  void awaitReport() const {
    char report = 0;
    EXPECT_EQ(::read(pipe_.first.get(), &report, 1), 1);
  }

 private:
  [[noreturn]] void answerForever() const {
    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &terminate, nullptr);
    for (int signal;; ::sigwait(&terminate, &signal))
      if (::write(pipe_.second.get(), "r", 1) != 1) ::_exit(1);
  }

  std::pair<FileDescriptor, FileDescriptor> pipe_ = platform::makePipe().value();
  pid_t pid_;
};

struct DaemonProcessTest : Test {
  DaemonSurroundings surroundings_;
};

TEST_F(DaemonProcessTest, AnswersAnyDBusClient) {
  const DaemonProcess daemon(surroundings_);
  daemon.connect();
  const auto replyTo = [this](const std::string& request) {
    return runCommand("dbus-send --peer=unix:path=" + surroundings_.socketPath() +
                      " --print-reply /com/quenzel/BatteryMetrics " + request)
        .output;
  };
  EXPECT_THAT(replyTo("com.quenzel.BatteryMetrics.Ping"), HasSubstr("boolean true"));
  EXPECT_THAT(replyTo("com.quenzel.BatteryMetrics.TerminateProcess int32:-5"),
              AllOf(HasSubstr("boolean false"), HasSubstr("string \"Invalid PID -5.\"")));
  EXPECT_THAT(replyTo("com.quenzel.BatteryMetrics.TerminateProcess string:x"), HasSubstr("InvalidArgs"));
  EXPECT_THAT(replyTo("org.freedesktop.DBus.Introspectable.Introspect"),
              AllOf(HasSubstr("<method name=\"Ping\">"), HasSubstr("<method name=\"SetLowPowerMode\">"),
                    HasSubstr("<method name=\"TerminateProcess\">"), HasSubstr("type=\"i\" name=\"pid\"")));
  // Whatever the daemon's umask, every user reaches its socket and nobody else writes the folder.
  EXPECT_EQ(modeOf(surroundings_.socketPath()), 0666u);
  EXPECT_EQ(modeOf(surroundings_.folder() / "run"), 0755u);
  EXPECT_EQ(modeOf(surroundings_.folder() / "run/quenzel"), 0755u);
  EXPECT_THAT(daemon.log(), AllOf(HasSubstr("[INFO] [Daemon] Starting listener for com.quenzel.metricsd\n"),
                                  HasSubstr("[INFO] [Daemon] ping received.\n")));
}

TEST_F(DaemonProcessTest, NobodyDisturbsAnybodyElse) {
  const DaemonProcess daemon(surroundings_);
  const auto quick = daemon.connect();
  const std::size_t threads = daemon.count("task");
  const std::size_t descriptors = daemon.count("fd");

  auto slow = daemon.connect();
  std::vector<FileDescriptor> idle;
  for (int i = 0; i < 500; ++i) idle.push_back(surroundings_.connectSocket());

  const StubbornChild child;
  auto terminated = std::async(std::launch::async, [&] { return slow->terminateProcess(child.pid()); });
  child.awaitReport();  // the request is being worked on now
  EXPECT_EQ(described(quick->ping()), "true / (none)");
  EXPECT_EQ(terminated.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "the ping waited";
  EXPECT_EQ(described(terminated.get()),
            "false / Process " + std::to_string(child.pid()) + " ignored SIGTERM and SIGKILL.");

  const StubbornChild another;
  const pid_t leaves = ::fork();
  if (leaves == 0) {
    daemon.connect()->terminateProcess(another.pid());
    ::_exit(0);
  }
  another.awaitReport();
  ::kill(leaves, SIGKILL);  // a client that leaves loses only its reply
  ::waitpid(leaves, nullptr, 0);

  idle.clear();
  slow.reset();
  EXPECT_EQ(described(quick->ping()), "true / (none)");
  EXPECT_TRUE(
      eventually([&] { return daemon.count("task") == threads && daemon.count("fd") == descriptors; }));
}

TEST_F(DaemonProcessTest, AFullDaemonClosesWhatHasBeenIdleLongest) {
  const DaemonProcess daemon(surroundings_, "", "ulimit -n 64");  // a quarter of them, 16, for connections
  const auto first = daemon.connect();
  std::vector<FileDescriptor> idle;
  for (int i = 0; i < 15; ++i) idle.push_back(surroundings_.connectSocket());
  EXPECT_TRUE(eventually([&] {
    const std::string log = daemon.log();  // two lines of the start, one for each connection
    return std::count(log.begin(), log.end(), '\n') == 2 + 16;
  }));
  EXPECT_EQ(described(first->ping()), "true / (none)");
  EXPECT_EQ(described(daemon.connect()->ping()), "true / (none)");
  EXPECT_TRUE(isClosedByPeer(idle.front(), 10'000));
  EXPECT_FALSE(isClosedByPeer(idle.back(), 0));
  EXPECT_EQ(described(first->ping()), "true / (none)");
}

TEST_F(DaemonProcessTest, OneDaemonASocket) {
  DaemonProcess first(surroundings_);
  first.connect();
  DaemonProcess second(surroundings_);
  EXPECT_EQ(second.exitStatus(), 1);
  EXPECT_THAT(second.log(), HasSubstr("QuenzelDaemon: A daemon is already running at " +
                                      surroundings_.socketPath() + "\n"));
  first.kill();

  const DaemonProcess third(surroundings_);  // the socket of the killed one is in its way
  EXPECT_EQ(described(third.connect()->ping()), "true / (none)");
}

TEST_F(DaemonProcessTest, TakesOverTheSocketOfTheServiceManager) {
  const FileDescriptor listener = surroundings_.listeningSocket();
  ASSERT_EQ(::fcntl(listener.get(), F_SETFL, O_NONBLOCK), 0);  // as the service manager's are
  const DaemonProcess daemon(surroundings_, "", "export LISTEN_FDS=1 LISTEN_PID=$$", listener.get());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(described(daemon.connect()->ping()), "true / (none)");
}

TEST_F(DaemonProcessTest, TakesNoArgumentsButTwo) {
  const std::tuple<const char*, int, const char*> rows[] = {
      {"--help", 0, "Usage: QuenzelDaemon"},
      {"--version", 0, "QuenzelDaemon 0."},
      {"--help >/dev/full", 1, "QuenzelDaemon: can't write the output\n"},
      {"--bogus", 2, "QuenzelDaemon: unknown argument: --bogus (see --help)\n"}};
  for (const auto& [argument, status, output] : rows) {
    DaemonProcess daemon(surroundings_, argument);
    EXPECT_EQ(daemon.exitStatus(), status);
    EXPECT_THAT(daemon.log(), HasSubstr(output));
  }
}

const std::string units = QUENZEL_BINARY_DIRECTORY "/../QuenzelDaemon/com.quenzel.metricsd.";

TEST(ServiceUnit, ExposesLessThanTwo) {
  if (runCommand("systemd-analyze --version").status != 0)
    GTEST_SKIP() << "NOT CHECKED: systemd-analyze is not installed";
  // The threshold is in tenths; beyond it the command fails.
  const auto result =
      runCommand("systemd-analyze security --offline=true --no-pager --threshold=19 " + units + "service");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_THAT(result.output, HasSubstr("Overall exposure level for com.quenzel.metricsd.service: 1."));
}

TEST(ServiceUnit, HasNoLimitOfStartsThatAClientCouldUseUp) {
  for (const std::string unit : {"service", "socket"})
    EXPECT_THAT(runCommand("cat " + units + unit).output, HasSubstr("\nStartLimitIntervalSec=0\n"));
  EXPECT_THAT(runCommand("cat " + units + "socket").output, HasSubstr("\nTriggerLimitIntervalSec=0\n"));
}

}  // namespace
}  // namespace quenzel
