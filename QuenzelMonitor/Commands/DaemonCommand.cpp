#include "QuenzelMonitor/Commands/DaemonCommand.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Base/Text.hpp"
#include "Engine/ApplicationQuit.hpp"
#include "MetricsCollectors/DefaultShellRunner.hpp"
#include "MetricsCollectors/ProcessSampler.hpp"
#include "Platform/HardwareModel.hpp"
#include "Platform/RequestTransport.hpp"
#include "Platform/ThisProcess.hpp"
#include "QuenzelMonitor/Commands/Arguments.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

using platform::RequestClient;
using platform::RequestReply;
using platform::RequestResult;
using platform::TransportFailure;

using Request = std::function<RequestResult(RequestClient&)>;

std::unique_ptr<RequestClient> connect() {
  auto connection = platform::connectToService(BatteryServiceConstants::daemonServiceName());
  if (const auto* failure = std::get_if<TransportFailure>(&connection)) throw CommandError(failure->message);
  return std::get<std::unique_ptr<RequestClient>>(std::move(connection));
}

RequestReply ask(const Request& request) {
  RequestResult result = request(*connect());
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

struct QuitOptions {
  std::string name;
  bool force = false;
};

struct QuitOutcome {
  QuitPlan::Target target;
  RequestReply reply;
};

QuitPlan quitPlan(const QuitOptions& options) {
  const DefaultShellRunner shell;
  const std::vector<ProcessSample> running = ProcessSampler(shell).sampleProcessTree(1).allProcesses;
  QuitPlan plan = planQuit(running, options.name, platform::ownPID());
  if (plan.targets.empty())
    throw CommandError(plan.application + " is this command itself or one of its parents");
  if (plan.belongsToSystem && !options.force)
    throw CommandError(plan.application + " belongs to the operating system; --force ends it all the same");
  return plan;
}

/// Whether a process that still answers the daemon's probes has ended all the same: it keeps its number until
/// its parent asks for its exit status (state Z of ps(1)).
bool isOnlyUncollected(std::int32_t pid) {
  try {
    const ShellResult answer =
        DefaultShellRunner().run("/bin/ps", {"-p", std::to_string(pid), "-o", "stat="});
    const std::string_view state = trimmed(answer.stdout);
    return state.empty() || state.front() == 'Z';
  } catch (const ShellRunnerError&) {
    return false;
  }
}

/// On a broken connection every further request fails the same way, so that each process has its outcome.
QuitOutcome end(const QuitPlan::Target& target, RequestClient& client) {
  RequestResult result = client.terminateProcess(target.pid);
  if (const auto* failure = std::get_if<TransportFailure>(&result))
    return {target, {false, failure->message}};
  RequestReply reply = std::get<RequestReply>(std::move(result));
  if (!reply.success && isOnlyUncollected(target.pid))
    reply = {true, "ended, but its parent has yet to collect it"};
  return {target, std::move(reply)};
}

nlohmann::ordered_json encodeOutcome(const QuitOutcome& outcome) {
  nlohmann::ordered_json json = {
      {"pid", outcome.target.pid}, {"name", outcome.target.name}, {"success", outcome.reply.success}};
  if (outcome.reply.message) json["message"] = *outcome.reply.message;
  return json;
}

void print(const QuitOutcome& outcome, Console& console) {
  const std::string deed = outcome.reply.success ? "ended" : "did not end";
  console.out << fmt::format("{:>8}  {}: {}\n", outcome.target.pid, printableLine(outcome.target.name),
                             printableLine(outcome.reply.message.value_or(deed)));
  console.out.flush();  // the next process may take its time
}

/// Ends an application's processes one after another.
int quit(const QuitOptions& options, bool json, Console& console) {
  const QuitPlan plan = quitPlan(options);
  const std::unique_ptr<RequestClient> client = connect();
  std::vector<QuitOutcome> outcomes;
  for (const QuitPlan::Target& target : plan.targets) {
    outcomes.push_back(end(target, *client));
    if (!json) print(outcomes.back(), console);
  }
  const auto lasting = std::count_if(outcomes.begin(), outcomes.end(),
                                     [](const QuitOutcome& outcome) { return !outcome.reply.success; });
  if (json) {
    console.out << encodeJSON({{"application", plan.application},
                               {"outcomes", encodeJSONList(outcomes, encodeOutcome)},
                               {"protectedPIDs", plan.protectedPIDs}})
                << '\n';
    return lasting == 0 ? exitSuccess : exitFailure;
  }
  for (const std::int64_t pid : plan.protectedPIDs)
    console.out << fmt::format("{:>8}  left alone: needed by this command\n", pid);
  if (lasting > 0)
    throw CommandError(
        fmt::format("{} of {} did not end", lasting,
                    quantity(static_cast<std::int64_t>(outcomes.size()), "process", "processes")));
  return exitSuccess;
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
  addIntegerOption(*terminate, "PID", *pid, PIDRange::min(), PIDRange::max(), "its process ID")->required();

  const auto options = std::make_shared<QuitOptions>();
  CLI::App* quitApp = daemon->add_subcommand("quit", "End an application and its helpers");
  quitApp->add_option("NAME", options->name, "as it is listed, in any case; or its group key")->required();
  quitApp->add_flag("--force", options->force, "even if it belongs to the operating system");
  quitApp->add_flag("--json", *json, "print the outcomes as JSON");
  quitApp->callback([&command, &console, json, options] {
    command = [&console, json, options] { return quit(*options, *json, console); };
  });
}

}  // namespace quenzel
