#include "QuenzelMonitor/DaemonCommand.hpp"

#include <cstdint>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <variant>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Platform/HardwareModel.hpp"
#include "Platform/RequestTransport.hpp"
#include "QuenzelMonitor/Arguments.hpp"
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

/// What to ask, and what to say of a success that comes without a message.
struct Question {
  Request request;
  std::string done;
  bool modelled = false;  ///< whether a success changes a model only
};

/// Asks the daemon and prints its reply.
int report(const Question& question, bool json, Console& console) {
  const RequestReply reply = ask(question.request);
  if (json) {
    nlohmann::ordered_json document = {{"success", reply.success}};
    if (reply.message) document["message"] = *reply.message;
    if (question.modelled) document["modelled"] = true;
    console.out << encodeJSON(document) << '\n';
  } else if (reply.success) {
    console.out << reply.message.value_or(question.done) << '\n';
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
      command = [&console, json, makeRequest] { return report(makeRequest(), *json, console); };
    });
    return request;
  };

  addRequest("ping", "Is it there?", [] {
    return Question{[](RequestClient& client) { return client.ping(); }, "The daemon answers."};
  });

  const auto state = std::make_shared<std::string>();
  CLI::App* lowPower = addRequest("low-power", "Switch Low Power Mode", [state] {
    const bool enabled = *state == "on";
    const bool modelled = platform::modelledHardware().lowPowerMode;
    return Question{[enabled](RequestClient& client) { return client.setLowPowerMode(enabled); },
                    fmt::format("Low Power Mode is {}{}.", *state, modelled ? " (modelled)" : ""), modelled};
  });
  lowPower->add_option("STATE", *state, "on or off")->required()->check(CLI::IsMember({"on", "off"}));

  const auto pid = std::make_shared<std::int64_t>(0);
  CLI::App* terminate = addRequest("terminate", "End one process", [pid] {
    const auto number = static_cast<std::int32_t>(*pid);
    return Question{[number](RequestClient& client) { return client.terminateProcess(number); },
                    fmt::format("Process {} has ended.", number)};
  });
  using PIDRange = std::numeric_limits<std::int32_t>;
  addIntegerOption(*terminate, "PID", *pid, PIDRange::min(), PIDRange::max(), "its process id")->required();
}

}  // namespace quenzel
