// From the start of a child to its result, beside the two bare system calls; and a whole cycle beside its ps.

#include <csignal>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MetricsCollectors/BatteryStatusCollector.hpp"
#include "MetricsCollectors/DefaultShellRunner.hpp"
#include "MetricsCollectors/LiveAttributionInputBuilder.hpp"
#include "MetricsCollectors/RunningProcessMetadataResolver.hpp"
#include "MetricsCollectors/SMCReader.hpp"

extern char** environ;

namespace quenzel::benchmarks {
namespace {

pid_t spawnBare(const char* path, std::vector<const char*> arguments) {
  arguments.push_back(nullptr);
  pid_t child = -1;
  const int failure =
      ::posix_spawn(&child, path, nullptr, nullptr, const_cast<char* const*>(arguments.data()), environ);
  return failure == 0 ? child : -1;
}

void boundSpawnAndWait(benchmark::State& state) {
  for (auto _ : state) {
    int status = 0;
    ::waitpid(spawnBare("/bin/true", {"/bin/true"}), &status, 0);
    benchmark::DoNotOptimize(status);
  }
}
BENCHMARK(boundSpawnAndWait)->UseRealTime()->Unit(benchmark::kMicrosecond);

void runnerSpawnToResult(benchmark::State& state) {
  const DefaultShellRunner runner;
  for (auto _ : state) benchmark::DoNotOptimize(runner.run("/bin/true", {}));
}
BENCHMARK(runnerSpawnToResult)->UseRealTime()->Unit(benchmark::kMicrosecond);

double cpuSeconds(int who) {
  rusage usage{};
  ::getrusage(who, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Runs commands for real and adds up the CPU time of every ps.
class MeasuringShell final : public ShellRunning {
 public:
  ShellResult run(const std::string& executable, const std::vector<std::string>& arguments) const override {
    const double before = cpuSeconds(RUSAGE_CHILDREN);
    ShellResult result = runner_.run(executable, arguments);
    if (executable == "/bin/ps") psSeconds_ += cpuSeconds(RUSAGE_CHILDREN) - before;
    return result;
  }
  double psSeconds() const { return psSeconds_; }

 private:
  DefaultShellRunner runner_;
  mutable double psSeconds_ = 0;
};

/// Fills the process table for as long as it lives.
class Sleepers {
 public:
  explicit Sleepers(int count) {
    for (int index = 0; index < count; ++index)
      children_.push_back(spawnBare("/bin/sleep", {"/bin/sleep", "600"}));
  }
  ~Sleepers() {
    for (const pid_t child : children_) ::kill(child, SIGKILL);
    for (const pid_t child : children_) ::waitpid(child, nullptr, 0);
  }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;

 private:
  std::vector<pid_t> children_;
};

/// Real cycles over about a thousand processes: the engine's own CPU time beside what ps burns for it (at
/// most 5 %).
void cycleBesidePS(benchmark::State& state) {
  const Sleepers sleepers(950);
  const MeasuringShell shell;
  const ProcessSampler sampler(shell);
  const PowermetricsCollector powermetrics(shell);
  const BatteryStatusCollector battery(shell);
  SMCReader smc;
  const DisplayPowerEstimator display(smc);
  const USBPowerEstimator usb(&smc);
  const LiveAttributionInputBuilder builder(
      {sampler, powermetrics, display, usb, battery, RunningProcessMetadataResolver::resolve,
       RunningProcessMetadataCache::shared(), now, ComponentProfiler::shared()});
  builder.build({}, false);  // fills the metadata cache
  const double psBefore = shell.psSeconds();
  double engineSeconds = 0;
  std::size_t processes = 0;
  for (auto _ : state) {
    const double before = cpuSeconds(RUSAGE_SELF);
    processes = builder.build({}, false).processes.size();
    engineSeconds += cpuSeconds(RUSAGE_SELF) - before;
  }
  const double cycles = static_cast<double>(state.iterations());
  state.counters["processes"] = static_cast<double>(processes);
  state.counters["engine_ms"] = engineSeconds / cycles * 1000;
  state.counters["ps_ms"] = (shell.psSeconds() - psBefore) / cycles * 1000;
  state.counters["engine_of_ps"] = engineSeconds / (shell.psSeconds() - psBefore);
}
BENCHMARK(cycleBesidePS)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quenzel::benchmarks
