// Stand-in for powermetrics(1): task activity from /proc, power from the processor's energy counters, in the
// text form of the original.

#include <array>
#include <charconv>
#include <cstring>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <fmt/format.h>
#include <getopt.h>
#include <sys/utsname.h>

#include "Base/ErrorText.hpp"
#include "Base/MonotonicClock.hpp"
#include "Base/Number.hpp"
#include "Base/ScopedResource.hpp"
#include "Platform/EnergyCounterAccess.hpp"
#include "Platform/HardwareModel.hpp"
#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/Linux/LinuxSettings.hpp"
#include "Platform/Linux/PowermetricsReport.hpp"
#include "Platform/Linux/Tools/ToolOutput.hpp"

namespace quenzel::platform {
namespace {

constexpr const char* help =
    "Usage: powermetrics [options]\n"
    "Reports what running tasks and processors did over an interval.\n"
    "\n"
    "  -n, --sample-count N      take N samples, 0 for no end (default 0)\n"
    "  -i, --sample-rate MS      length of a sample in milliseconds (default 1000)\n"
    "  -s, --samplers LIST       of tasks, cpu_power, gpu_power, ane_power, default, all (default: all)\n"
    "  -o, --output-file FILE    write to FILE instead of standard output\n"
    "  -A, --show-all            every sampler and every column\n"
    "      --show-process-energy, --show-process-gpu, --show-process-io, --show-process-coalition,\n"
    "      --show-process-netstats, --show-process-qos, --show-usage-summary\n"
    "                            accepted; what this system measures of them is in the columns of "
    "--show-all\n"
    "  -h, --help                this text\n";

struct Options {
  std::int64_t sampleCount = 0;
  std::int64_t intervalMs = 1000;
  bool tasks = true;
  bool power = true;
  bool showAll = false;
  bool help = false;
  std::string outputFile;
};

/// An option that can't be taken; the tool says so and ends.
struct UsageError {
  std::string message;
};

std::int64_t numberOption(const char* name, const char* text, std::int64_t least) {
  const auto number = parseInteger<std::int64_t>(text);
  if (number && *number >= least && *number <= 1'000'000'000) return *number;
  throw UsageError{fmt::format("powermetrics: invalid {}: {}", name, text)};
}

void chooseSamplers(Options& options, std::string_view list) {
  options.tasks = options.power = false;
  while (!list.empty()) {
    const std::string_view sampler = nextPiece(list, ',');
    const bool everything = sampler == "all" || sampler == "default";
    const bool power = sampler == "cpu_power" || sampler == "gpu_power" || sampler == "ane_power";
    if (!everything && !power && sampler != "tasks") {
      throw UsageError{fmt::format("powermetrics: unrecognized sampler: {}", sampler)};
    }
    options.tasks = options.tasks || everything || sampler == "tasks";
    options.power = options.power || everything || power;
  }
}

Options parseOptions(int argc, char** argv) {
  enum { accepted = 256 };
  static const option longOptions[] = {{"sample-count", required_argument, nullptr, 'n'},
                                       {"sample-rate", required_argument, nullptr, 'i'},
                                       {"samplers", required_argument, nullptr, 's'},
                                       {"output-file", required_argument, nullptr, 'o'},
                                       {"show-all", no_argument, nullptr, 'A'},
                                       {"show-process-energy", no_argument, nullptr, accepted},
                                       {"show-process-gpu", no_argument, nullptr, accepted},
                                       {"show-process-io", no_argument, nullptr, accepted},
                                       {"show-process-coalition", no_argument, nullptr, accepted},
                                       {"show-process-netstats", no_argument, nullptr, accepted},
                                       {"show-process-qos", no_argument, nullptr, accepted},
                                       {"show-usage-summary", no_argument, nullptr, accepted},
                                       {"help", no_argument, nullptr, 'h'},
                                       {nullptr, 0, nullptr, 0}};
  Options options;
  ::opterr = 0;  // one line of our own says it
  for (int choice; (choice = ::getopt_long(argc, argv, ":n:i:s:o:Ah", longOptions, nullptr)) != -1;) {
    switch (choice) {
      case 'n':
        options.sampleCount = numberOption("sample count", optarg, 0);
        break;
      case 'i':
        options.intervalMs = numberOption("sample rate", optarg, 1);
        break;
      case 's':
        chooseSamplers(options, optarg);
        break;
      case 'o':
        options.outputFile = optarg;
        break;
      case 'A':
        options.showAll = true;
        break;
      case 'h':
        options.help = true;
        break;
      case accepted:
        break;
      case ':':
        throw UsageError{fmt::format("powermetrics: option needs a value: {}", argv[optind - 1])};
      default:
        throw UsageError{fmt::format("powermetrics: unrecognized option: {}", refusedOption(argv))};
    }
  }
  if (optind < argc) throw UsageError{fmt::format("powermetrics: unrecognized argument: {}", argv[optind])};
  options.tasks = options.tasks || options.showAll;
  options.power = options.power || options.showAll;
  return options;
}

void pause(std::int64_t milliseconds) {
  timespec rest{.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1'000'000};
  while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, &rest) == EINTR) {
  }
}

std::string reportHeader() {
  utsname system{};
  ::uname(&system);
  const std::string model = fileValue(sysfsRoot() + "/class/dmi/id/product_name").value_or("unknown");
  return fmt::format("Machine model: {}\nOS version: {} {}\n\n", model, system.sysname, system.release);
}

std::string sampleHeader(double elapsedSeconds) {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  ::localtime_r(&now, &parts);
  std::array<char, 64> text{};
  std::strftime(text.data(), text.size(), "%a %b %e %H:%M:%S %Y %z", &parts);
  return fmt::format("*** Sampled system activity ({}) ({:.2f}ms elapsed) ***\n\n", text.data(),
                     elapsedSeconds * 1000);
}

/// Takes scans and turns two of them into a report.
class Sampler {
 public:
  explicit Sampler(const Options& options)
      : options_(options), processes_(procfsRoot()), energy_(makeEnergyModelChannels()) {}

  PowermetricsScan scan() {
    PowermetricsScan scan;
    scan.seconds = monotonicSeconds();
    scan.processors = processorTimes().value_or(ProcessorTimes{});
    if (options_.power && !modelled_) scan.energy = energy_->sample();
    if (!options_.tasks) return scan;
    scan.tasks = processes_.tasks();
    if (!options_.showAll) return scan;
    for (const TaskStat& task : scan.tasks) {
      if (const auto storage = processes_.storage(task.pid)) scan.storage.emplace(task.pid, *storage);
    }
    return scan;
  }

  std::string report(const PowermetricsScan& before, const PowermetricsScan& after) const {
    std::string text = sampleHeader(after.seconds - before.seconds);
    if (options_.tasks) {
      text +=
          taskSection(taskReport(before, after, groups(after), static_cast<double>(::sysconf(_SC_CLK_TCK))),
                      options_.showAll);
    }
    if (options_.power) {
      text +=
          powerSection(modelled_ ? std::optional(modelledPower(before, after)) : measuredPower(before, after),
                       energyCounterRefusal());
    }
    return text;
  }

 private:
  std::map<std::int32_t, std::string> groups(const PowermetricsScan& scan) const {
    std::map<std::int32_t, std::string> groups;
    for (const TaskStat& task : scan.tasks) groups.emplace(task.pid, processes_.group(task));
    return groups;
  }

  const Options& options_;
  const bool modelled_ = modelledHardware().powerCounters;
  ProcessTable processes_;
  std::unique_ptr<EnergyModelChannels> energy_;
};

int sampleTo(int descriptor, const Options& options) {
  Sampler sampler(options);
  std::string text = reportHeader();
  PowermetricsScan before = sampler.scan();
  for (std::int64_t taken = 0; options.sampleCount == 0 || taken < options.sampleCount; ++taken) {
    pause(options.intervalMs);
    PowermetricsScan after = sampler.scan();
    text += sampler.report(before, after);
    if (writeAll(descriptor, text) != 0) return EXIT_FAILURE;
    text.clear();
    before = std::move(after);
  }
  return EXIT_SUCCESS;
}

int runWith(const Options& options) {
  if (options.help) return printed(help);
  if (options.outputFile.empty()) return sampleTo(STDOUT_FILENO, options);
  const FileDescriptor file(
      ::open(options.outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (file) return sampleTo(file.get(), options);
  return failed(fmt::format("powermetrics: can't open {}: {}", options.outputFile, errorText(errno)));
}

int run(int argc, char** argv) {
  try {
    return runWith(parseOptions(argc, argv));
  } catch (const UsageError& error) {
    return failed(error.message, usageExitStatus);
  }
}

}  // namespace
}  // namespace quenzel::platform

int main(int argc, char** argv) {
  return quenzel::platform::toolMain("powermetrics", [&] { return quenzel::platform::run(argc, argv); });
}
