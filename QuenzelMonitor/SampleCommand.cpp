#include "QuenzelMonitor/SampleCommand.hpp"

#include <chrono>
#include <cstdint>
#include <iostream>
#include <optional>
#include <ostream>
#include <thread>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <unistd.h>

#include "MetricsCollectors/DefaultShellRunner.hpp"
#include "QuenzelMonitor/SampleReport.hpp"
#include "QuenzelMonitor/SamplingCycle.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

struct SampleOptions {
  bool json = false;
  std::size_t top = 15;
  std::optional<double> watchSeconds;
  std::optional<std::uint64_t> count;
};

/// Columns of the terminal that the output goes to, if it goes to one.
std::optional<std::size_t> terminalWidth(const Console& console) {
  winsize size{};
  if (&console.out != &std::cout || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
    return {};
  return size.ws_col;
}

void print(const SamplingCycleResult& result, const SampleOptions& options, Console& console) {
  if (!options.json) {
    console.out << sampleReport(result, {options.top, terminalWidth(console)});
  } else {
    // One document a line while repeating, so that a reader can take them apart.
    const JSONStyle style = options.watchSeconds ? JSONStyle::compact : JSONStyle::pretty;
    console.out << encodeJSON(encodeSample(result), style) << '\n';
  }
  console.out.flush();
}

/// Repeats at fixed moments, however long a cycle takes; a cycle that fails is reported and the next one
/// runs.
int watch(SamplingCycle& cycle, const SampleOptions& options, Console& console) {
  using Clock = std::chrono::steady_clock;
  const auto interval =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*options.watchSeconds));
  int status = exitSuccess;
  auto next = Clock::now();
  for (std::uint64_t done = 0; !options.count || done < *options.count; ++done) {
    if (done > 0) {
      next = std::max(next + interval, Clock::now());
      std::this_thread::sleep_until(next);
      if (!options.json) console.out << '\n';
    }
    try {
      print(cycle.run(), options, console);
      status = exitSuccess;
    } catch (const ShellRunnerError& error) {
      console.err << "quenzel: " << error.what() << std::endl;
      status = exitFailure;
    }
    if (!console.out) throw CommandError("can't write the output");
  }
  return status;
}

int sample(const SampleOptions& options, Console& console) {
  const DefaultShellRunner shell;
  SamplingCycle cycle(shell);
  if (options.watchSeconds) return watch(cycle, options, console);
  print(cycle.run(), options, console);
  return exitSuccess;
}

}  // namespace

void addSampleCommand(CLI::App& app, std::function<int()>& command, Console& console) {
  CLI::App* sampleApp = app.add_subcommand("sample", "Run one sampling cycle and print what it found");
  const auto options = std::make_shared<SampleOptions>();
  constexpr double longestWatchSeconds = 7 * 24 * 3600;
  sampleApp->add_flag("--json", options->json, "print input, metadata and battery status as JSON");
  sampleApp->add_option("--top", options->top, "how many processes to list")->capture_default_str();
  auto* watchOption =
      sampleApp->add_option("--watch", options->watchSeconds, "repeat every SECONDS until interrupted");
  watchOption->type_name("SECONDS")->check(CLI::Range(0.1, longestWatchSeconds));
  sampleApp->add_option("--count", options->count, "with --watch: stop after that many cycles")
      ->needs(watchOption)
      ->check(CLI::PositiveNumber);
  sampleApp->callback(
      [&command, &console, options] { command = [&console, options] { return sample(*options, console); }; });
}

}  // namespace quenzel
