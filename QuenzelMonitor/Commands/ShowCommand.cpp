#include "QuenzelMonitor/Commands/ShowCommand.hpp"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <system_error>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "QuenzelMonitor/Commands/Arguments.hpp"
#include "QuenzelMonitor/Commands/HistoryDatabase.hpp"
#include "QuenzelMonitor/Views/HistoryReport.hpp"
#include "QuenzelMonitor/Views/HistoryView.hpp"
#include "QuenzelMonitor/Views/Terminal.hpp"

namespace quenzel {
namespace {

struct ShowOptions {
  std::optional<std::string> database;
  std::string window = "24h";
  std::int64_t top = 10;
  bool json = false;
};

struct Window {
  std::string_view label;
  double seconds;
};
constexpr Window windows[] = {{"1h", 3600}, {"24h", 24 * 3600}, {"7d", 7 * 24 * 3600}};

/// Drawn curves have as many points as dots beside each other.
GraphPeriodSpec periodOf(const ShowOptions& options, std::size_t width) {
  const auto* const window =
      std::find_if(std::begin(windows), std::end(windows),
                   [&](const Window& candidate) { return candidate.label == options.window; });
  return {options.window, window->seconds,
          options.json ? DetailsPipelineOutput::maxSeriesPoints : static_cast<std::int64_t>(2 * width)};
}

/// Nothing to show is a failure that says how to begin.
[[noreturn]] void refuse(const ShowOptions& options, std::string_view state) {
  const std::string option = options.database ? " --database " + *options.database : "";
  throw CommandError(fmt::format("{}; \"quenzel record{}\" records one until it is stopped", state, option));
}

void requireHistory(const ShowOptions& options) {
  const std::string path = historyPath(options.database, HistoryAccess::read);
  std::error_code failure;
  const auto status = std::filesystem::status(path, failure);
  if (status.type() == std::filesystem::file_type::not_found)
    refuse(options, fmt::format("there is no history at {} yet", path));
}

int show(const ShowOptions& options, Console& console) {
  requireHistory(options);
  constexpr std::size_t usualWidth = 80, widest = 160;
  HistoryReportLayout layout{.width = std::min(terminalWidth(console).value_or(usualWidth), widest),
                             .topApplications = static_cast<std::size_t>(options.top),
                             .isUnicode = isUTF8Terminal()};
  const HistoryView view =
      withHistory(options.database, HistoryAccess::read, [&](SQLiteSnapshotStore& store) {
        return readHistoryView(store, periodOf(options, layout.width), now());
      });
  if (view.details.snapshotCount == 0 && !view.newestInFuture)
    refuse(options,
           fmt::format("the history at {} is empty", historyPath(options.database, HistoryAccess::read)));
  if (options.json) return printJSON(encodeHistoryView(view), console);
  console.out << historyReport(view, layout);
  return exitSuccess;
}

}  // namespace

void addShowCommand(CLI::App& app, std::function<int()>& command, Console& console) {
  CLI::App* showApp = app.add_subcommand("show", "Show where the power of the last hours went");
  const auto options = std::make_shared<ShowOptions>();
  addDatabaseOption(*showApp, options->database);
  showApp->add_option("--window", options->window, "the time that ends with the newest snapshot")
      ->type_name("LENGTH")
      ->check(CLI::IsMember({"1h", "24h", "7d"}))
      ->capture_default_str();
  addIntegerOption(*showApp, "--top", options->top, 0, anyCount, "how many applications to list")
      ->capture_default_str();
  showApp->add_flag("--json", options->json, "print the figures and curves as JSON");
  showApp->callback(
      [&command, &console, options] { command = [&console, options] { return show(*options, console); }; });
}

}  // namespace quenzel
