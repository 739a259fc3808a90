#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "MetricsCollectors/DefaultProcessTerminator.hpp"
#include "MetricsCollectors/DefaultShellRunner.hpp"
#include "Platform/RequestTransport.hpp"
#include "QuenzelDaemon/BatteryMetricsService.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"

namespace {

using namespace quenzel;

constexpr const char* usage =
    "Usage: QuenzelDaemon [--help | --version]\n"
    "Answers the battery monitor's privileged requests until it is killed. Takes no other arguments.\n";

/// The exit status of a start with arguments.
int answerArgument(std::string_view argument) {
  if (argument == "--help") {
    fmt::print("{}", usage);
    return 0;
  }
  if (argument == "--version") {
    fmt::print("{} {}\n", ProductConfiguration::daemonName, QUENZEL_VERSION);
    return 0;
  }
  fmt::print(stderr, "QuenzelDaemon: unknown argument: {}\n{}", argument, usage);
  return 2;
}

int serve() {
  // A client or a child that closes its end early is an error of that write, not the end of the daemon.
  std::signal(SIGPIPE, SIG_IGN);
  const DefaultShellRunner shell;
  const DefaultProcessTerminator terminator;
  BatteryMetricsService service(shell, terminator);
  const std::string serviceName = BatteryServiceConstants::daemonServiceName();
  RuntimeLog::info("Daemon", "Starting listener for " + serviceName);
  const platform::TransportFailure failure = platform::serveRequests(serviceName, service);
  fmt::print(stderr, "QuenzelDaemon: {}\n", failure.message);
  return 1;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  return argumentCount > 1 ? answerArgument(arguments[1]) : serve();
}
