#include <filesystem>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "MetricsCollectors/ProcessSampler.hpp"
#include "MetricsCollectors/RunningProcessMetadataResolver.hpp"
#include "Tests/Support/FakeClock.hpp"
#include "Tests/Support/FakeShell.hpp"
#include "Tests/Support/LoggedLines.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using ::testing::ElementsAre;
using testing::FakeClock;
using testing::FakeShell;
using ::testing::IsEmpty;
using testing::linesLoggedBy;
using Metadata = RunningProcessMetadata;

std::vector<std::int64_t> pidsOf(const std::vector<ProcessSample>& samples) {
  std::vector<std::int64_t> pids;
  for (const ProcessSample& sample : samples) pids.push_back(sample.pid);
  return pids;
}

/// A sampler over texts, with metadata and files of the test's choosing.
class ProcessSampling : public ::testing::Test {
 protected:
  ProcessSampler sampler() {
    return ProcessSampler(shell_, {[this](std::int32_t pid) {
                                     lookups_.push_back(pid);
                                     const auto known = metadata_.find(pid);
                                     return known == metadata_.end() ? std::nullopt
                                                                     : std::optional(known->second);
                                   },
                                   cache_, [this](const std::string& path) { return files_.contains(path); },
                                   clock_.provider(), profiler_});
  }

  FakeShell shell_;
  FakeClock clock_;
  RunningProcessMetadataCache cache_;
  std::map<std::int32_t, Metadata> metadata_;
  std::set<std::string> files_;
  std::vector<std::int32_t> lookups_;
  std::vector<ComponentSpan> spans_;
  ComponentProfiler profiler_{[this](const ComponentSpan& span) { spans_.push_back(span); }};
};

TEST(ProcessSampler, ReadsLines) {
  using PSRow = ProcessSampler::PSRow;
  const std::pair<std::string_view, PSRow> rows[] = {
      {"  12   1  0.5  0.1 /sbin/x --flag ", {12, 1, 0.5, 0.1, "/sbin/x --flag"}},
      {"12\t1\t0\t.1\tx", {12, 1, 0, 0.1, "x"}},
      {"-2 0 1e1 0.0 x", {-2, 0, 10, 0, "x"}},
  };
  for (const auto& [line, row] : rows) EXPECT_EQ(ProcessSampler::parsePSLine(line), row) << line;
  for (const auto* line : {"12 1 0.0 0.1", "12 1 0.0 0.1  ", "x 1 0.0 0.1 name", "12 1 - 0.1 name", " "}) {
    EXPECT_EQ(ProcessSampler::parsePSLine(line), std::nullopt) << line;
  }
}

TEST_F(ProcessSampling, RanksByCPUThenPidWithinTheLimit) {
  shell_.output("/bin/ps", "10 1 5.0 0 a\r\n3 1 5.0 0 b\u2028 7 0 9.0 0 c\n\n8 1 0.0 0 d\n");
  const std::pair<std::int64_t, std::vector<std::int64_t>> rows[] = {
      {2, {7, 3}}, {0, {7}}, {-9, {7}}, {1000, {7, 3, 10, 8}}, {INT64_MAX, {7, 3, 10, 8}}};
  for (const auto& [limit, pids] : rows)
    EXPECT_EQ(pidsOf(sampler().sampleTopProcesses(limit)), pids) << limit;
  EXPECT_EQ(shell_.calls().at(0),
            (FakeShell::Call{"/bin/ps", {"-A", "-ww", "-o", "pid=,ppid=,%cpu=,%mem=,command="}}));
}

TEST_F(ProcessSampling, CountsRowsThatAreNoneAndLogsNamesOnOneLineWhenAsked) {
  shell_.output("/bin/ps", "10 1 5,0 0,1 /a secret\n \n7 1 9.126 0 c\x1B[2J -x\n8 1 8.0\n");
  ProcessSamplingReport report;
  const auto sampling = [&] { report = sampler().sampleProcesses(9, false); };
  const std::string unreadable = "[WARN] [ProcessSampler] rows of ps that can't be read: 2";
  EXPECT_THAT(linesLoggedBy(sampling), ElementsAre(unreadable));
  EXPECT_EQ(report.unreadableRows, 2U);
  EXPECT_EQ(pidsOf(report.snapshot.sampledProcesses), std::vector<std::int64_t>{7});
  EXPECT_EQ(sampler().sampleProcesses(9, true).unreadableRows, 2U);
  const testing::ScopedEnvironment debugging{{{"QZL_PROCESS_NAME_DEBUG", "1"}}};
  metadata_[7] = {"/opt/a\n[1.000] [ERROR] [Daemon] forged", {}, {}};
  clock_.advance(16);
  EXPECT_THAT(linesLoggedBy(sampling), ElementsAre("[INFO] [ProcessSampler] pid=7 cpu=9.13 raw=c?[2J -x "
                                                   "resolved=/opt/a?[1.000] [ERROR] [Daemon] forged",
                                                   unreadable));
}

TEST(ProcessSampler, TakesItsFourCollaborators) {
  FakeShell shell;
  shell.output("/bin/ps", "7 1 9.0 0 \"/bin/sh\" -c x\n");
  RunningProcessMetadataCache cache;
  ComponentProfiler profiler;
  const auto lookup = [](std::int32_t) { return std::nullopt; };
  EXPECT_EQ(ProcessSampler(shell, lookup, cache, profiler).sampleTopProcesses(1).at(0).name, "/bin/sh");
  EXPECT_EQ(cache.size(), 1U);
}

TEST_F(ProcessSampling, BuildsTheTreeWithOneLookupAProcess) {
  metadata_[7] = {"/opt/c", {}, "org.c"};
  shell_.output("/bin/ps", "10 1 5.0 0 a\n7 0 9.0 0 c\n");
  ProcessSamplingSnapshot snapshot;
  EXPECT_THAT(linesLoggedBy([&] { snapshot = sampler().sampleProcessTree(1); }), IsEmpty());
  const ProcessSample busiest{.pid = 7, .name = "/opt/c", .bundleID = "org.c", .cpuPercent = 9};
  EXPECT_THAT(snapshot.allProcesses,
              ElementsAre(ProcessSample{.pid = 10, .parentPID = 1, .name = "a", .cpuPercent = 5}, busiest));
  EXPECT_THAT(snapshot.sampledProcesses, ElementsAre(busiest));
  EXPECT_THAT(lookups_, ElementsAre(10, 7));
  clock_.advance(121);
  sampler().sampleTopProcesses(1);
  EXPECT_THAT(lookups_, ElementsAre(10, 7, 7)) << "what is not returned is not looked up";
  ASSERT_EQ(spans_.size(), 2U);
  EXPECT_EQ(spans_[0].component, "daemonSampleProcessSampler");
  EXPECT_EQ(spans_[0].origin.correlationID, "process-sampler-1");
  EXPECT_EQ(spans_[0].context,
            (ComponentProfiler::Context{{"stage", "parse"}, {"limit", "1"}, {"includeAll", "1"}}));
}

TEST_F(ProcessSampling, PassesFailuresOnAndTakesImpossibleListsForFatal) {
  shell_.reply("/bin/ps", ShellRunnerError::timedOut("ps", 4))
      .reply("/bin/ps", ShellResult{1, "12 1 0 0 x\n", "bad"})
      .output("/bin/ps", "7 1 0 0 a\n7 1 0 0 b\n");
  const auto sample = [this] { sampler().sampleTopProcesses(5); };
  EXPECT_EQ(thrownBy<ShellRunnerError>(sample).kind(), ShellRunnerError::Kind::timedOut);
  const auto error = thrownBy<ShellRunnerError>(sample);
  EXPECT_EQ((ShellResult{error.status(), error.stdout(), error.stderr()}),
            (ShellResult{1, "12 1 0 0 x\n", "bad"}));
  EXPECT_EQ(sampler().sampleTopProcesses(5).size(), 2U);  // only the tree needs pids to be unique
  EXPECT_DEATH(sampler().sampleProcessTree(5), "Fatal error: ps listed process 7 twice");
  FakeShell huge;
  huge.output("/bin/ps", "4294967296 1 0 0 a\n");
  EXPECT_DEATH(ProcessSampler(huge).sampleTopProcesses(5),
               "Fatal error: ps listed the process id 4294967296");
}

TEST_F(ProcessSampling, ResolvesNames) {
  files_ = {"/Applications/My Tool.app/Contents/MacOS/My Tool", "/opt/a b/c", "/bin/tool", "/opt", "opt b/c"};
  const std::string spaced = "/Applications/My Tool.app/Contents/MacOS/My Tool";
  const std::tuple<std::string, std::optional<Metadata>, std::string> rows[] = {
      {"/bin/tool -x", Metadata{" /usr/bin/real ", {}, {}}, " /usr/bin/real "},
      {"/bin/tool -x", Metadata{{}, "/Applications/B.app", {}}, "/Applications/B.app"},
      {"/bin/tool -x", Metadata{"  ", "/Applications/B.app", {}}, "/bin/tool"},
      {"/bin/tool -x", Metadata{{}, {}, "org.b"}, "/bin/tool"},
      {spaced + " --flag", {}, spaced},
      {"\"/opt/a b/c\" -x", {}, "/opt/a b/c"},
      {"launchd", {}, "launchd"},
      {"opt b/c x", {}, "opt b/c x"},
      {"/gone/tool  -x", {}, "/gone/tool  -x"}};
  for (const auto& [line, metadata, name] : rows)
    EXPECT_EQ(sampler().resolveProcessName(line, metadata), name) << line;
  const std::pair<std::string_view, std::optional<std::string>> tokens[] = {
      {" a b", "a"},      {"", std::nullopt},           {"\"\" x", std::nullopt},
      {"'a b' c", "a b"}, {"\"a\\\"b\\\\c", "a\"b\\c"}, {"'a\"b'", "a\"b"},
  };
  for (const auto& [line, token] : tokens) EXPECT_EQ(ProcessSampler::executableToken(line), token);
}

struct FakeProcesses final : platform::RunningProcesses {
  std::optional<std::string> path;
  std::optional<platform::RunningApplication> application;
  std::map<std::string, std::string> bundles;
  int bundleReads = 0;
  std::optional<std::string> executablePath(std::int32_t) override { return path; }
  std::optional<platform::RunningApplication> runningApplication(std::int32_t) override {
    return application;
  }
  std::optional<std::string> bundleIdentifier(const std::string& location) override {
    ++bundleReads;
    return bundles.contains(location) ? std::optional(bundles.at(location)) : std::nullopt;
  }
};

TEST(RunningProcessMetadata, IsResolvedFromPathBundleAndRecord) {
  using Application = platform::RunningApplication;
  using Path = std::optional<std::string>;
  const std::string f = "/A/F.app", g = "/A/G.app", inF = "/A/F.app/x";
  // The path of the executable, what runs as an application, and the identifiers of bundles on disk.
  const std::tuple<Path, std::optional<Application>, std::map<std::string, std::string>,
                   std::optional<Metadata>>
      rows[] = {{{}, {}, {}, {}},
                {"/usr/libexec/bar", {}, {}, Metadata{"/usr/libexec/bar", {}, {}}},
                {inF, {}, {{f, "org.f"}}, Metadata{inF, f, "org.f"}},
                {inF, Application{g, "org.g"}, {}, Metadata{inF, f, "org.g"}},
                {inF, Application{g, {}}, {{g, "org.g"}}, Metadata{inF, f, {}}},
                {{}, Application{g, {}}, {{g, "org.g"}}, Metadata{{}, g, "org.g"}},
                {"/bin/x", Application{{}, "org.x"}, {}, Metadata{"/bin/x", {}, "org.x"}},
                {{}, Application{}, {}, {}},
                {"/bin/caf\xE9", {}, {}, Metadata{"/bin/caf\uFFFD", {}, {}}}};
  for (const auto& [path, application, onDisk, metadata] : rows) {
    FakeProcesses processes;
    processes.path = path;
    processes.application = application;
    processes.bundles = onDisk;
    BundleIdentifierCache bundles([&](const std::string& at) { return processes.bundleIdentifier(at); });
    for (int round = 0; round < 2; ++round)
      EXPECT_EQ(RunningProcessMetadataResolver::resolveAmong(processes, bundles, 7), metadata)
          << path.value_or("(no path)");
    EXPECT_LE(processes.bundleReads, 1) << "a bundle is read once";
  }
  namespace Resolver = RunningProcessMetadataResolver;
  EXPECT_EQ(Resolver::resolve(::getpid())->executablePath, std::filesystem::read_symlink("/proc/self/exe"));
  EXPECT_EQ(Resolver::bundleIdentifierCache().bundleIdentifier("/nowhere.app"), std::nullopt);
  const std::pair<std::string, Path> paths[] = {{"/A/Foo.APP/Contents/MacOS/Foo", "/A/Foo.APP"},
                                                {"/A/Foo.app/X/S.xpc/S", "/A/Foo.app"},
                                                {"/S.xpc/A.App/x", "/S.xpc/A.App"},
                                                {"/L/S.XPC/S", "/L/S.XPC"},
                                                {"/A/Foo.app", "/A/Foo.app"},
                                                {"/A/Foo.xpc", "/A/Foo.xpc"},
                                                {"/A/Foo.APP", {}}};  // at the end in lower case only
  for (const auto& [path, bundle] : paths) EXPECT_EQ(Resolver::bundlePath(path), bundle) << path;
}

/// Asks a cache for pids, counting the look-ups.
struct CountingLookup {
  RunningProcessMetadataCache cache;
  FakeClock clock;
  std::optional<Metadata> answer;
  int lookups = 0;

  std::optional<Metadata> resolve(std::int32_t pid, double after = 0) {
    clock.advance(after);
    const auto lookUp = [this](std::int32_t) { return ++lookups, answer; };
    return cache.resolve(pid, clock.now(), lookUp);
  }
};

TEST(RunningProcessMetadataCache, KeepsHitsLongerThanMisses) {
  CountingLookup known;
  const std::pair<double, int> rows[] = {{0, 1}, {15, 1}, {0.001, 2}, {120, 2}, {0.001, 3}};
  for (const auto& [seconds, lookups] : rows) {
    EXPECT_EQ(known.resolve(7, seconds).has_value(), lookups > 1);
    EXPECT_EQ(known.lookups, lookups);
    known.answer = Metadata{"/bin/x", {}, {}};
  }
}

TEST(RunningProcessMetadataCache, PrunesOldEntriesAndKeepsTheNewest) {
  CountingLookup known;
  for (std::int32_t pid = 0; pid < 63; ++pid) known.resolve(pid);
  known.clock.advance(120.5);
  EXPECT_EQ(known.cache.size(), 63U);
  known.resolve(63);  // the 64th look-up prunes
  EXPECT_EQ(known.cache.size(), 1U);
  known.resolve(63, 100);
  known.clock.advance(120);
  for (std::int32_t pid = 100; pid < 163; ++pid) known.resolve(pid);
  EXPECT_EQ(known.cache.size(), 64U) << "what was looked up again counts from then";
  for (std::int32_t pid = 1000; pid < 6000; ++pid) known.resolve(pid, 0.001);
  EXPECT_EQ(known.cache.size(), 4096U);
  known.lookups = 0;
  for (const int newest : {5999, 6000 - 4096}) known.resolve(newest);
  EXPECT_EQ(known.lookups, 0) << "the newest stayed";
  known.resolve(6000 - 4097);
  EXPECT_EQ(known.lookups, 1) << "the oldest went";
}

}  // namespace
}  // namespace quenzel
