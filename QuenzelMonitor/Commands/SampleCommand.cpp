#include "QuenzelMonitor/Commands/SampleCommand.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <ostream>
#include <thread>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Engine/SamplingCycle.hpp"
#include "MetricsCollectors/DefaultShellRunner.hpp"
#include "QuenzelMonitor/Commands/Arguments.hpp"
#include "QuenzelMonitor/Views/SampleReport.hpp"
#include "QuenzelMonitor/Views/Terminal.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

struct SampleOptions {
  bool json = false;
  std::int64_t top = 15;
  double watchSeconds = 0;  ///< 0: one cycle only
  std::int64_t count = 0;   ///< 0: until interrupted
};

void print(const SamplingCycleResult& result, const SampleOptions& options, Console& console) {
  if (!options.json) {
    console.out << sampleReport(
        result, {static_cast<std::size_t>(options.top), terminalWidth(console), isUTF8Terminal()});
  } else {
    // One document a line while repeating, so that a reader can take them apart.
    const JSONStyle style = options.watchSeconds > 0 ? JSONStyle::compact : JSONStyle::pretty;
    console.out << encodeJSON(encodeSample(result), style) << '\n';
  }
  console.out.flush();
}

/// Repeats at fixed moments, however long a cycle takes; a cycle that fails is reported and the next one
/// runs.
int watch(SamplingCycle& cycle, const SampleOptions& options, Console& console) {
  using Clock = std::chrono::steady_clock;
  const auto interval =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.watchSeconds));
  int status = exitSuccess;
  auto next = Clock::now();
  for (std::int64_t done = 0; options.count == 0 || done < options.count; ++done) {
    if (done > 0) {
      next = std::max(next + interval, Clock::now());
      std::this_thread::sleep_until(next);
      if (!options.json) console.out << '\n';
    }
    try {
      print(cycle.run(), options, console);
      status = exitSuccess;
    } catch (const ShellRunnerError& error) {
      reportError(error, console);
      status = exitFailure;
    } catch (const JSONCodingError& error) {
      reportError(error, console);
      status = exitFailure;
    }
    if (!console.out) throw CommandError("can't write the output");
  }
  return status;
}

int sample(const SampleOptions& options, Console& console) {
  const DefaultShellRunner shell;
  SamplingCycle cycle(shell);
  if (options.watchSeconds > 0) return watch(cycle, options, console);
  print(cycle.run(), options, console);
  return exitSuccess;
}

}  // namespace

void addSampleCommand(CLI::App& app, std::function<int()>& command, Console& console) {
  CLI::App* sampleApp = app.add_subcommand("sample", "Run one sampling cycle and print what it found");
  const auto options = std::make_shared<SampleOptions>();
  constexpr double longestWatchSeconds = 7 * 24 * 3600;
  sampleApp->add_flag("--json", options->json, "print input, metadata and battery status as JSON");
  addIntegerOption(*sampleApp, "--top", options->top, 0, anyCount, "how many processes to list")
      ->capture_default_str();
  auto* watchOption = addNumberOption(*sampleApp, "--watch", options->watchSeconds, 0.1, longestWatchSeconds,
                                      "repeat every so many seconds until interrupted")
                          ->type_name("SECONDS");
  addIntegerOption(*sampleApp, "--count", options->count, 1, anyCount,
                   "with --watch: stop after that many cycles")
      ->needs(watchOption);
  sampleApp->callback(
      [&command, &console, options] { command = [&console, options] { return sample(*options, console); }; });
}

}  // namespace quenzel
