#include "QuenzelMonitor/Commands/EstimatesCommand.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "QuenzelMonitor/Commands/Arguments.hpp"
#include "QuenzelMonitor/Commands/HistoryDatabase.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

struct EstimatesOptions {
  std::optional<std::string> database;
  std::int64_t id = 0;
  std::int64_t limit = 100;
};

int add(const EstimatesOptions& options, Console& console) {
  const auto estimate = decodeEstimateInput(parseJSON(readInput("-", console)), {});
  return withHistory(options.database, HistoryAccess::create, [&](SQLiteSnapshotStore& store) {
    return printJSON({{"id", store.insert(estimate)}}, console);
  });
}

int evaluate(const EstimatesOptions& options, Console& console) {
  const auto evaluation = decodeEvaluationInput(parseJSON(readInput("-", console)), {});
  return withHistory(options.database, HistoryAccess::change, [&](SQLiteSnapshotStore& store) {
    if (!store.applyEvaluation(options.id, evaluation))
      throw CommandError(fmt::format("{}: no estimate {}", store.path(), options.id));
    return exitSuccess;
  });
}

int pending(const EstimatesOptions& options, Console& console) {
  return withHistory(options.database, HistoryAccess::read, [&](SQLiteSnapshotStore& store) {
    return printJSON(encodeJSONList(store.fetchPendingEstimates(options.limit), encodeEstimateRow), console);
  });
}

int list(const EstimatesOptions& options, Console& console) {
  return withHistory(options.database, HistoryAccess::read, [&](SQLiteSnapshotStore& store) {
    return printJSON(encodeJSONList(store.fetchEstimateRows(options.limit), encodeEstimateRow), console);
  });
}

}  // namespace

void addEstimatesCommand(CLI::App& app, std::function<int()>& command, Console& console) {
  CLI::App& estimates = *app.add_subcommand("estimates", "Store, evaluate and list estimates");
  estimates.require_subcommand(0, 1);
  const auto options = std::make_shared<EstimatesOptions>();
  const auto addSubcommand = [&](const char* name, const char* description,
                                 int (*run)(const EstimatesOptions&, Console&)) -> CLI::App& {
    CLI::App& subcommand = *estimates.add_subcommand(name, description);
    addDatabaseOption(subcommand, options->database);
    subcommand.callback([&command, &console, options, run] {
      command = [&console, options, run] { return run(*options, console); };
    });
    return subcommand;
  };
  addSubcommand("add", "Store an estimate, JSON on standard input", add);
  CLI::App& evaluateApp =
      addSubcommand("evaluate", "Record what became of an estimate, JSON on standard input", evaluate);
  addIntegerOption(evaluateApp, "ID", options->id, -anyCount, anyCount, "of the estimate")->required();
  for (CLI::App* listing :
       {&addSubcommand("pending", "List the estimates to be evaluated, oldest first", pending),
        &addSubcommand("list", "List the estimates, newest first", list)}) {
    addIntegerOption(*listing, "--limit", options->limit, 1, anyCount, "how many")->capture_default_str();
  }
}

}  // namespace quenzel
