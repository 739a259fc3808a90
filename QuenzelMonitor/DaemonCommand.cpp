#include "QuenzelMonitor/DaemonCommand.hpp"

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <variant>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Platform/RequestTransport.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

using platform::RequestClient;
using platform::RequestReply;
using platform::RequestResult;
using platform::TransportFailure;

using Request = std::function<RequestResult(RequestClient&)>;

RequestReply ask(const Request& request) {
  auto connection = platform::connectToService(BatteryServiceConstants::daemonServiceName());
  if (const auto* failure = std::get_if<TransportFailure>(&connection)) throw CommandError(failure->message);
  RequestResult result = request(*std::get<std::unique_ptr<RequestClient>>(connection));
  if (const auto* failure = std::get_if<TransportFailure>(&result)) throw CommandError(failure->message);
  return std::get<RequestReply>(std::move(result));
}

/// Asks the daemon and prints its reply: its own message, or `done` for a success without one.
int report(const Request& request, const std::string& done, bool json, Console& console) {
  const RequestReply reply = ask(request);
  if (json) {
    nlohmann::ordered_json document = {{"success", reply.success}};
    if (reply.message) document["message"] = *reply.message;
    console.out << encodeJSON(document) << '\n';
  } else if (reply.success) {
    console.out << reply.message.value_or(done) << '\n';
  } else {
    throw CommandError(reply.message.value_or("the daemon refused and gave no reason"));
  }
  return reply.success ? exitSuccess : exitFailure;
}

}  // namespace

void addDaemonCommand(CLI::App& app, std::function<int()>& command, Console& console) {
  CLI::App* daemon = app.add_subcommand("daemon", "Ask the running daemon");
  daemon->require_subcommand(0, 1);
  const auto json = std::make_shared<bool>(false);
  const auto addRequest = [&](const char* name, const char* description, auto makeRequest) {
    CLI::App* request = daemon->add_subcommand(name, description);
    request->add_flag("--json", *json, "print the reply as JSON");
    request->callback([&command, &console, json, makeRequest] {
      command = [&console, json, makeRequest] {
        const auto [question, done] = makeRequest();
        return report(question, done, *json, console);
      };
    });
    return request;
  };

  addRequest("ping", "Is it there?", [] {
    return std::pair<Request, std::string>([](RequestClient& client) { return client.ping(); },
                                           "The daemon answers.");
  });

  const auto state = std::make_shared<std::string>();
  CLI::App* lowPower = addRequest("low-power", "Switch Low Power Mode", [state] {
    const bool enabled = *state == "on";
    return std::pair<Request, std::string>(
        [enabled](RequestClient& client) { return client.setLowPowerMode(enabled); },
        "Low Power Mode is " + *state + ".");
  });
  lowPower->add_option("STATE", *state, "on or off")->required()->check(CLI::IsMember({"on", "off"}));

  const auto pid = std::make_shared<std::int32_t>(0);
  CLI::App* terminate = addRequest("terminate", "End one process", [pid] {
    return std::pair<Request, std::string>(
        [number = *pid](RequestClient& client) { return client.terminateProcess(number); },
        fmt::format("Process {} has ended.", *pid));
  });
  terminate->add_option("PID", *pid, "its process id")->required();
}

}  // namespace quenzel
