#include "QuenzelMonitor/Commands/CommandLine.hpp"

#include <exception>
#include <functional>
#include <ostream>
#include <string>

#include <CLI/CLI.hpp>

#include "Base/Text.hpp"
#include "QuenzelMonitor/Commands/DaemonCommand.hpp"
#include "QuenzelMonitor/Commands/EstimatesCommand.hpp"
#include "QuenzelMonitor/Commands/HistoryCommand.hpp"
#include "QuenzelMonitor/Commands/InspectCommand.hpp"
#include "QuenzelMonitor/Commands/RecordCommand.hpp"
#include "QuenzelMonitor/Commands/SampleCommand.hpp"
#include "QuenzelMonitor/Commands/ShowCommand.hpp"

namespace quenzel {
namespace {

/// The program alone, or a group of commands alone, asks what there is.
int printOverview(const CLI::App& app, Console& console) {
  console.out << app.help();  // of the group, where one is named
  return exitSuccess;
}

}  // namespace

int runCommandLine(int argumentCount, const char* const* arguments, Console console) {
  CLI::App app("Quenzel: where does this computer's power go?", "quenzel");
  app.set_version_flag("--version", QUENZEL_VERSION);
  app.require_subcommand(0, 1);
  std::function<int()> command;
  addSampleCommand(app, command, console);
  addRecordCommand(app, command, console);
  addShowCommand(app, command, console);
  addHistoryCommand(app, command, console);
  addEstimatesCommand(app, command, console);
  addDaemonCommand(app, command, console);
  addInspectCommand(app, command, console);
  try {
    app.parse(argumentCount, arguments);
  } catch (const CLI::Success& request) {  // help or version
    const int status = app.exit(request, console.out, console.err);
    return console.out.flush() ? status : exitFailure;
  } catch (const CLI::Error& error) {
    console.err << "quenzel: " << printableLine(error.what()) << " (see --help)\n";
    return exitUsage;
  }
  if (!command) command = [&] { return printOverview(app, console); };
  try {
    const int status = command();
    console.out.flush();
    if (!console.out) throw CommandError("can't write the output");
    return status;
  } catch (const std::exception& error) {
    reportError(error, console);
    return exitFailure;
  }
}

}  // namespace quenzel
