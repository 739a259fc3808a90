#include <cstdio>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "Base/Environment.hpp"
#include "Base/Text.hpp"
#include "MetricsCollectors/DefaultProcessTerminator.hpp"
#include "MetricsCollectors/DefaultShellRunner.hpp"
#include "Platform/BundleInformation.hpp"
#include "Platform/IgnoredSignals.hpp"
#include "Platform/ProcessStart.hpp"
#include "Platform/RequestTransport.hpp"
#include "QuenzelDaemon/BatteryMetricsService.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"

namespace {

using namespace quenzel;

constexpr const char* usage =
    "Usage: QuenzelDaemon [--help | --version]\n"
    "Answers the battery monitor's privileged requests until it is killed. Takes no other arguments.\n";

// Nothing here may throw because a stream is full or gone: fmt's own printing would.

int complain(const std::string& message) {
  std::fputs(("QuenzelDaemon: " + message + "\n").c_str(), stderr);
  return 1;
}

int answer(const std::string& text) {
  return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0
             ? 0
             : complain("can't write the output");
}

/// The exit status of a start with arguments.
int answerArgument(std::string_view argument) {
  if (argument == "--help") return answer(usage);
  if (argument == "--version")
    return answer(fmt::format("{} {}\n", ProductConfiguration::daemonName, QUENZEL_VERSION));
  complain(fmt::format("unknown argument: {} (see --help)", printableLine(argument)));
  return 2;
}

/// A property list that was named but can't be read would go unnoticed: the daemon would serve under another
/// name.
void warnOfUnreadableInfoPlist() {
  const auto path = environmentValue("QZL_INFO_PLIST");
  if (path && !path->empty() && !platform::mainBundle().infoDictionary()) {
    RuntimeLog::warn("Daemon", "QZL_INFO_PLIST names no readable property list: " + *path);
  }
}

int serve() {
  // A client or a child that closes its end early is an error of that write, not the end of the daemon.
  platform::ignoreBrokenPipes();
  const DefaultShellRunner shell;
  const DefaultProcessTerminator terminator;
  warnOfUnreadableInfoPlist();
  BatteryMetricsService service(shell, terminator);
  const std::string serviceName = BatteryServiceConstants::daemonServiceName();
  RuntimeLog::info("Daemon", "Starting listener for " + serviceName);
  const platform::TransportFailure failure = platform::serveRequests(serviceName, service);
  return complain(failure.message);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  platform::prepareProcess();
  return argumentCount > 1 ? answerArgument(arguments[1]) : serve();
}
