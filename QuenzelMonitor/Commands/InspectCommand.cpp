#include "QuenzelMonitor/Commands/InspectCommand.hpp"

#include <ostream>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Base/Environment.hpp"
#include "QuenzelMonitor/Commands/Arguments.hpp"
#include "QuenzelMonitor/Inspect/EnergyModelStage.hpp"
#include "QuenzelMonitor/Inspect/GraphStages.hpp"
#include "QuenzelMonitor/Inspect/InspectStages.hpp"
#include "QuenzelMonitor/Inspect/PresentationStages.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

using Stage = std::function<nlohmann::ordered_json(std::string_view input)>;

struct StageRow {
  const char* name;
  const char* description;
  nlohmann::ordered_json (*run)(std::string_view input);
};

constexpr StageRow plainStages[] = {
    {"powermetrics", "text of powermetrics", inspectPowermetrics},
    {"battery", "property list of ioreg -a", inspectBattery},
    {"battery-level", "inputs of the level rule", inspectBatteryLevel},
    {"pmset", "text of pmset -g", inspectPmset},
    {"smc", "typed bytes of controller keys", inspectSMC},
    {"cpu-load", "processor tick readings", inspectCPULoad},
    {"system-power", "system power readings", inspectSystemPower},
    {"energy-model", "readings of the energy counters", inspectEnergyModel},
    {"discharge-estimate", "lists of CPU percentages", inspectDischargeEstimate},
    {"config", "a sampling configuration", inspectConfig},
    {"snapshot", "a drain snapshot", inspectSnapshot},
    {"presentation", "snapshots whose processes to name", inspectPresentation},
    {"synthetic-pid", "keys of rows that are no process", inspectSyntheticPID},
    {"termination", "a grouped process and its members", inspectTermination},
    {"apple-process", "names and bundle identifiers", inspectAppleProcess},
    {"summary", "a history to sum up over a window", inspectSummary},
    {"power-trend", "points of a power trend", inspectPowerTrend},
    {"battery-trend", "snapshots with battery readings", inspectBatteryTrend},
    {"snapshot-quality", "snapshots to score", inspectSnapshotQuality},
};

CLI::App* addStage(CLI::App& inspect, const char* name, const char* description, Stage stage,
                   std::function<int()>& command, Console& console) {
  CLI::App* app = inspect.add_subcommand(name, description);
  const auto file = std::make_shared<std::string>();
  app->add_option("FILE", *file, "captured input; standard input when left out or -");
  app->callback([&command, &console, file, stage = std::move(stage)] {
    command = [&console, file, stage] {
      setEnvironmentValue("QZL_LOG_DISABLED", "1");  // an inspection leaves no trace
      return printJSON(stage(readInput(*file, console)), console);
    };
  });
  return app;
}

}  // namespace

void addInspectCommand(CLI::App& app, std::function<int()>& command, Console& console) {
  CLI::App* inspect =
      app.add_subcommand("inspect", "Run one stage on captured input and print its result as JSON");
  inspect->require_subcommand(0, 1);
  for (const StageRow& row : plainStages)
    addStage(*inspect, row.name, row.description, row.run, command, console);

  const auto options = std::make_shared<PSInspection>();
  const auto ps = [options](std::string_view input) { return inspectPS(input, *options); };
  CLI::App* psApp = addStage(*inspect, "ps", "text of ps in the sampler's form", ps, command, console);
  addIntegerOption(*psApp, "--limit", options->limit, -anyCount, anyCount,
                   "how many of the busiest processes to keep")
      ->capture_default_str();
  psApp->add_flag("--tree", options->tree, "list every process as well");
  psApp->add_flag("--resolve", options->resolve, "look processes and paths up on this machine");
}

}  // namespace quenzel
