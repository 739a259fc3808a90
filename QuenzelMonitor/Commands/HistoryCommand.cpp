#include "QuenzelMonitor/Commands/HistoryCommand.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Base/PointInTime.hpp"
#include "Base/Text.hpp"
#include "QuenzelMonitor/Commands/Arguments.hpp"
#include "QuenzelMonitor/Commands/HistoryDatabase.hpp"
#include "QuenzelMonitor/Views/HistoryView.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"
#include "SharedModels/Snapshot/SnapshotCodec.hpp"

namespace quenzel {
namespace {

struct HistoryOptions {
  std::optional<std::string> database;
  std::int64_t limit = 10;
  std::int64_t id = 0;
  double windowSeconds = 3600;
  std::int64_t maxRows = 500;
  std::int64_t maxSeries = 5;
  std::optional<double> anchor;  ///< seconds since 1970
  double from = 0;
  double to = 0;
  double olderThan = 0;
  std::string file;

  std::optional<PointInTime> anchorTimestamp() const {
    if (!anchor) return {};
    return PointInTime::fromSecondsSince1970(*anchor);
  }
};

int latest(SQLiteSnapshotStore& store, const HistoryOptions& options, Console& console) {
  return printJSON(encodeJSONList(store.fetchLatest(options.limit), encodeDrainSnapshot), console);
}

int show(SQLiteSnapshotStore& store, const HistoryOptions& options, Console& console) {
  const auto snapshot = store.fetchSnapshot(options.id);
  if (!snapshot) throw CommandError(fmt::format("{}: no snapshot {}", store.path(), options.id));
  return printJSON(encodeDrainSnapshot(*snapshot), console);
}

int window(SQLiteSnapshotStore& store, const HistoryOptions& options, Console& console) {
  const auto snapshots =
      store.fetchWindowSnapshots(options.windowSeconds, options.maxRows, options.anchorTimestamp());
  return printJSON(encodeJSONList(snapshots, encodeDrainSnapshot), console);
}

int energy(SQLiteSnapshotStore& store, const HistoryOptions& options, Console& console) {
  return printJSON(encodeEnergyUsageSummary(store.fetchEnergyUsageSummary(options.limit)), console);
}

int summary(SQLiteSnapshotStore& store, const HistoryOptions& options, Console& console) {
  return printJSON(
      encodeDetailsWindowSummary(store.fetchDetailsWindowSummary(
          PointInTime::fromSecondsSince1970(options.from), PointInTime::fromSecondsSince1970(options.to))),
      console);
}

int details(SQLiteSnapshotStore& store, const HistoryOptions& options, Console& console) {
  return printJSON(
      encodeDetailsPipelineOutput(store.fetchDetailsReadModel(
          options.windowSeconds, options.maxSeries, options.anchorTimestamp(), liveSnapshot(store))),
      console);
}

int purge(SQLiteSnapshotStore& store, const HistoryOptions& options, Console& console) {
  const auto deleted = store.purgeSnapshots(PointInTime::fromSecondsSince1970(options.olderThan));
  return printJSON({{"deleted", deleted}}, console);
}

int exportAll(SQLiteSnapshotStore& store, const HistoryOptions& /*options*/, Console& console) {
  for (const std::int64_t id : store.fetchSnapshotIDs()) {
    const auto snapshot = store.fetchSnapshot(id);
    if (!snapshot) continue;  // purged meanwhile
    console.out << encodeJSON(encodeDrainSnapshot(*snapshot)) << '\n';
    if (!console.out) throw CommandError("can't write the output");
  }
  return exitSuccess;
}

/// An error's text on the one line that a refused snapshot is answered with; tabs are no harm to it.
std::string errorLine(std::string_view text) {
  std::string line;
  for (std::size_t tab; (tab = text.find('\t')) != std::string_view::npos; text.remove_prefix(tab + 1))
    line += printableLine(text.substr(0, tab)) + '\t';
  return line + printableLine(text);
}

/// Every line is answered when it is done with: an outcome that was read stands for a committed snapshot.
int importLines(SQLiteSnapshotStore& store, LineReader& lines, Console& console) {
  int status = exitSuccess;
  const auto refuse = [&](const std::exception& error) {
    console.out << "error: " << errorLine(error.what()) << std::endl;
    status = exitFailure;
  };
  for (std::string line; lines.next(line, maxJSONBytes + 1);) {
    if (isBlank(line)) continue;
    try {
      console.out << rawValue(store.insert(SnapshotCodec::decodeSnapshot(line))) << std::endl;
    } catch (const JSONCodingError& error) {
      refuse(error);
    } catch (const SnapshotStoreError& error) {
      refuse(error);
    }
    if (!console.out) throw CommandError("can't write the output");
  }
  return status;
}

int import(const HistoryOptions& options, Console& console) {
  LineReader lines(options.file, console);
  return withHistory(options.database, HistoryAccess::create,
                     [&](SQLiteSnapshotStore& store) { return importLines(store, lines, console); });
}

/// A subcommand that does something with the history.
class HistorySubcommand {
 public:
  using Action = int (*)(SQLiteSnapshotStore& store, const HistoryOptions& options, Console& console);

  HistorySubcommand(CLI::App& history, const char* name, const char* description)
      : app_(*history.add_subcommand(name, description)) {
    addDatabaseOption(app_, options_->database);
  }

  CLI::App& app() { return app_; }
  HistoryOptions& options() { return *options_; }

  CLI::Option* addLimit(const char* description) {
    return addIntegerOption(app_, "--limit", options_->limit, 1, anyCount, description);
  }
  void addWindow() {
    addNumberOption(app_, "--seconds", options_->windowSeconds, -anySeconds, anySeconds,
                    "length of the window")
        ->type_name("SECONDS")
        ->capture_default_str();
    addNumberOption(app_, "--anchor", options_->anchor, -anySeconds, anySeconds,
                    "the window's end in seconds since 1970; the newest snapshot when left out")
        ->type_name("SECONDS");
  }
  CLI::Option* addTime(const char* name, double& time, const char* description) {
    return addNumberOption(app_, name, time, -anySeconds, anySeconds, description)
        ->type_name("SECONDS")
        ->required();
  }

  void run(std::function<int()>& command, Console& console, HistoryAccess access, Action action) {
    run(command, console, [access, action](const HistoryOptions& options, Console& with) {
      return withHistory(options.database, access,
                         [&](SQLiteSnapshotStore& store) { return action(store, options, with); });
    });
  }
  void run(std::function<int()>& command, Console& console,
           std::function<int(const HistoryOptions& options, Console& console)> action) {
    app_.callback([&command, &console, options = options_, action = std::move(action)] {
      command = [&console, options, action] { return action(*options, console); };
    });
  }

 private:
  CLI::App& app_;
  std::shared_ptr<HistoryOptions> options_ = std::make_shared<HistoryOptions>();
};

}  // namespace

void addHistoryCommand(CLI::App& app, std::function<int()>& command, Console& console) {
  CLI::App& history = *app.add_subcommand("history", "Read and keep the recorded history");
  history.require_subcommand(0, 1);

  HistorySubcommand latestApp(history, "latest", "Print the newest snapshots, oldest of them first");
  latestApp.addLimit("how many")->capture_default_str();
  latestApp.run(command, console, HistoryAccess::read, latest);

  HistorySubcommand showApp(history, "show", "Print one snapshot");
  addIntegerOption(showApp.app(), "ID", showApp.options().id, -anyCount, anyCount, "id in the database")
      ->required();
  showApp.run(command, console, HistoryAccess::read, show);

  HistorySubcommand windowApp(history, "window", "Print the snapshots of a window, thinned");
  windowApp.addWindow();
  addIntegerOption(windowApp.app(), "--max-rows", windowApp.options().maxRows, -anyCount, anyCount,
                   "about how many, from 1 to 10000")
      ->capture_default_str();
  windowApp.run(command, console, HistoryAccess::read, window);

  HistorySubcommand energyApp(history, "energy", "Print the energy over the newest snapshots");
  energyApp.options().limit = anyCount;
  energyApp.addLimit("over how many; all when left out");
  energyApp.run(command, console, HistoryAccess::read, energy);

  HistorySubcommand summaryApp(history, "summary", "Print the energy totals between two moments");
  summaryApp.addTime("--from", summaryApp.options().from, "in seconds since 1970");
  summaryApp.addTime("--to", summaryApp.options().to, "in seconds since 1970");
  summaryApp.run(command, console, HistoryAccess::read, summary);

  HistorySubcommand detailsApp(history, "details", "Print everything that the details views show");
  detailsApp.addWindow();
  addIntegerOption(detailsApp.app(), "--max-series", detailsApp.options().maxSeries, 0, anyCount,
                   "the most applications with a curve")
      ->capture_default_str();
  detailsApp.run(command, console, HistoryAccess::read, details);

  HistorySubcommand importApp(history, "import", "Store snapshots, one JSON document a line");
  importApp.app().add_option("FILE", importApp.options().file, "standard input when left out or -");
  importApp.run(command, console, import);

  HistorySubcommand exportApp(history, "export", "Print all snapshots, one JSON document a line");
  exportApp.run(command, console, HistoryAccess::read, exportAll);

  HistorySubcommand purgeApp(history, "purge", "Delete old snapshots");
  purgeApp.addTime("--older-than", purgeApp.options().olderThan, "in seconds since 1970");
  purgeApp.run(command, console, HistoryAccess::change, purge);
}

}  // namespace quenzel
