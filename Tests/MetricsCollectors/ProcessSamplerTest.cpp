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
  using PIDs = std::vector<std::int64_t>;
  const std::pair<std::int64_t, PIDs> rows[] = {
      {2, {7, 3}}, {0, {7}}, {-9, {7}}, {1000, {7, 3, 10, 8}}, {INT64_MAX, {7, 3, 10, 8}}};
  for (const auto& [limit, pids] : rows)
    EXPECT_EQ(pidsOf(sampler().sampleTopProcesses(limit)), pids) << limit;
  EXPECT_EQ(shell_.calls().at(0),
            (FakeShell::Call{"/bin/ps", {"-A", "-ww", "-o", "pid=,ppid=,%cpu=,%mem=,command="}}));
}

TEST_F(ProcessSampling, CountsRowsThatAreNone) {
  shell_.output("/bin/ps", "10 1 5,0 0,1 /a secret\n \n7 1 9.0 0 c\n8 1 8.0\n");
  ProcessSamplingReport report;
  EXPECT_THAT(linesLoggedBy([&] { report = sampler().sampleProcesses(9, false); }),
              ElementsAre("[WARN] [ProcessSampler] rows of ps that can't be read: 2"));
  EXPECT_EQ(report.unreadableRows, 2U);
  EXPECT_EQ(pidsOf(report.snapshot.sampledProcesses), std::vector<std::int64_t>{7});
  EXPECT_EQ(sampler().sampleProcesses(9, true).unreadableRows, 2U);
  shell_.output("/bin/ps", "7 1 9.0 0 c\n");
  sampler().sampleTopProcesses(9);
  EXPECT_THAT(linesLoggedBy([&] { sampler().sampleTopProcesses(9); }), IsEmpty());
}

TEST_F(ProcessSampling, LogsNamesOnOneLineWhenAsked) {
  const testing::ScopedEnvironment debugging{{{"QZL_PROCESS_NAME_DEBUG", "1"}}};
  metadata_[7] = {"/opt/a\n[1.000] [ERROR] [Daemon] forged", {}, {}};
  shell_.output("/bin/ps", "7 1 9.126 0 c\x1B[2J -x\n");
  EXPECT_THAT(linesLoggedBy([&] { sampler().sampleTopProcesses(9); }),
              ElementsAre("[INFO] [ProcessSampler] pid=7 cpu=9.13 raw=c?[2J -x "
                          "resolved=/opt/a?[1.000] [ERROR] [Daemon] forged"));
}

TEST(ProcessSampler, TakesItsFourCollaborators) {
  FakeShell shell;
  shell.output("/bin/ps", "7 1 9.0 0 \"/bin/sh\" -c x\n");
  RunningProcessMetadataCache cache;
  ComponentProfiler profiler;
  const RunningProcessMetadataLookup lookup = [](std::int32_t) { return std::nullopt; };
  EXPECT_EQ(ProcessSampler(shell, lookup, cache, profiler).sampleTopProcesses(1).at(0).name, "/bin/sh");
  EXPECT_EQ(cache.size(), 1U);
}

TEST_F(ProcessSampling, BuildsTheTreeWithOneLookupAProcess) {
  metadata_[7] = {"/opt/c", {}, "org.c"};
  shell_.output("/bin/ps", "10 1 5.0 0 a\n7 0 9.0 0 c\n");
  const ProcessSamplingSnapshot snapshot = sampler().sampleProcessTree(1);
  EXPECT_EQ(pidsOf(snapshot.allProcesses), (std::vector<std::int64_t>{10, 7}));
  EXPECT_THAT(snapshot.sampledProcesses, ElementsAre(snapshot.allProcesses.at(1)));
  EXPECT_EQ(snapshot.sampledProcesses.at(0),
            (ProcessSample{.pid = 7, .name = "/opt/c", .bundleID = "org.c", .cpuPercent = 9}));
  EXPECT_EQ(snapshot.allProcesses.at(0).parentPID, 1);
  EXPECT_THAT(lookups_, ElementsAre(10, 7));
  lookups_.clear();
  clock_.advance(121);
  sampler().sampleTopProcesses(1);
  EXPECT_THAT(lookups_, ElementsAre(7)) << "what is not returned is not looked up";
  ASSERT_EQ(spans_.size(), 2U);
  EXPECT_EQ(spans_[0].component, "daemonSampleProcessSampler");
  EXPECT_EQ(spans_[0].origin.correlationID, "process-sampler-1");
  EXPECT_EQ(spans_[0].context,
            (ComponentProfiler::Context{{"stage", "parse"}, {"limit", "1"}, {"includeAll", "1"}}));
}

TEST_F(ProcessSampling, PassesFailuresOn) {
  shell_.reply("/bin/ps", ShellRunnerError::timedOut("ps", 4))
      .reply("/bin/ps", ShellResult{1, "12 1 0 0 x\n", "bad"});
  EXPECT_EQ(thrownBy<ShellRunnerError>([&] { sampler().sampleTopProcesses(5); }).kind(),
            ShellRunnerError::Kind::timedOut);
  const auto error = thrownBy<ShellRunnerError>([&] { sampler().sampleTopProcesses(5); });
  EXPECT_EQ(error.kind(), ShellRunnerError::Kind::nonZeroExit);
  EXPECT_EQ((ShellResult{error.status(), error.stdout(), error.stderr()}),
            (ShellResult{1, "12 1 0 0 x\n", "bad"}));
}

TEST_F(ProcessSampling, TakesImpossibleListsForFatal) {
  shell_.output("/bin/ps", "7 1 0 0 a\n7 1 0 0 b\n");
  EXPECT_EQ(sampler().sampleTopProcesses(5).size(), 2U);  // only the tree needs pids to be unique
  EXPECT_DEATH(sampler().sampleProcessTree(5), "Fatal error: ps listed process 7 twice");
  FakeShell huge;
  huge.output("/bin/ps", "4294967296 1 0 0 a\n");
  const ProcessSampler ofHugePid(huge);
  EXPECT_DEATH(ofHugePid.sampleTopProcesses(5), "Fatal error: ps listed the process id 4294967296");
}

TEST_F(ProcessSampling, ResolvesNames) {
  files_ = {"/Applications/My Tool.app/Contents/MacOS/My Tool", "/opt/a b/c", "/bin/tool", "/opt", "opt b/c"};
  struct NameRow {
    std::string_view commandLine;
    std::optional<Metadata> metadata;
    std::string name;
  };
  const std::string spaced = "/Applications/My Tool.app/Contents/MacOS/My Tool";
  const NameRow rows[] = {
      {"/bin/tool -x", Metadata{" /usr/bin/real ", {}, {}}, " /usr/bin/real "},
      {"/bin/tool -x", Metadata{{}, "/Applications/B.app", {}}, "/Applications/B.app"},
      {"/bin/tool -x", Metadata{"  ", "/Applications/B.app", {}}, "/bin/tool"},
      {"/bin/tool -x", Metadata{{}, {}, "org.b"}, "/bin/tool"},
      {"/Applications/My Tool.app/Contents/MacOS/My Tool --flag", {}, spaced},
      {"\"/opt/a b/c\" -x", {}, "/opt/a b/c"},
      {"launchd", {}, "launchd"},
      {"opt b/c x", {}, "opt b/c x"},
      {"/gone/tool  -x", {}, "/gone/tool  -x"},
  };
  for (const NameRow& row : rows) {
    EXPECT_EQ(sampler().resolveProcessName(row.commandLine, row.metadata), row.name);
  }
  const std::pair<std::string_view, std::optional<std::string>> tokens[] = {
      {" a b", "a"},      {"", std::nullopt},           {"\"\" x", std::nullopt},
      {"'a b' c", "a b"}, {"\"a\\\"b\\\\c", "a\"b\\c"}, {"'a\"b'", "a\"b"},
  };
  for (const auto& [line, token] : tokens) EXPECT_EQ(ProcessSampler::executableToken(line), token);
}

class FakeProcesses final : public platform::RunningProcesses {
 public:
  struct State {
    std::optional<std::string> executablePath;
    std::optional<platform::RunningApplication> application;
    std::map<std::string, std::string> bundles;
    int bundleReads = 0;
  };
  explicit FakeProcesses(State& state) : state_(state) {}
  std::optional<std::string> executablePath(std::int32_t) override { return state_.executablePath; }
  std::optional<platform::RunningApplication> runningApplication(std::int32_t) override {
    return state_.application;
  }
  std::optional<std::string> bundleIdentifier(const std::string& path) override {
    ++state_.bundleReads;
    const auto known = state_.bundles.find(path);
    return known == state_.bundles.end() ? std::nullopt : std::optional(known->second);
  }

 private:
  State& state_;
};

TEST(RunningProcessMetadata, IsResolvedFromPathBundleAndRecord) {
  using Application = platform::RunningApplication;
  struct ResolveRow {
    FakeProcesses::State state;
    std::optional<Metadata> metadata;
  };
  const ResolveRow rows[] = {
      {{}, std::nullopt},
      {{"/usr/libexec/bar", {}, {}}, Metadata{"/usr/libexec/bar", {}, {}}},
      {{"/A/F.app/x", {}, {{"/A/F.app", "org.f"}}}, Metadata{"/A/F.app/x", "/A/F.app", "org.f"}},
      {{"/A/F.app/x", Application{"/A/G.app", "org.g"}, {}}, Metadata{"/A/F.app/x", "/A/F.app", "org.g"}},
      {{"/A/F.app/x", Application{"/A/G.app", {}}, {{"/A/G.app", "org.g"}}},
       Metadata{"/A/F.app/x", "/A/F.app", {}}},
      {{{}, Application{"/A/G.app", {}}, {{"/A/G.app", "org.g"}}}, Metadata{{}, "/A/G.app", "org.g"}},
      {{"/bin/x", Application{{}, "org.x"}, {}}, Metadata{"/bin/x", {}, "org.x"}},
      {{{}, Application{}, {}}, std::nullopt},
      {{"/bin/caf\xE9", {}, {}}, Metadata{"/bin/caf\uFFFD", {}, {}}},
  };
  for (const ResolveRow& row : rows) {
    FakeProcesses::State state = row.state;
    FakeProcesses processes(state);
    BundleIdentifierCache bundles([&](const std::string& path) { return processes.bundleIdentifier(path); });
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(RunningProcessMetadataResolver::resolveAmong(processes, bundles, 7), row.metadata)
          << state.executablePath.value_or("(no path)");
    }
    EXPECT_LE(state.bundleReads, 1) << "a bundle is read once";
  }
  EXPECT_EQ(RunningProcessMetadataResolver::resolve(::getpid())->executablePath,
            std::filesystem::read_symlink("/proc/self/exe"));
  EXPECT_EQ(RunningProcessMetadataResolver::bundleIdentifierCache().bundleIdentifier("/nowhere.app"),
            std::nullopt);
  const std::pair<std::string, std::optional<std::string>> paths[] = {
      {"/A/Foo.APP/Contents/MacOS/Foo", "/A/Foo.APP"},
      {"/A/Foo.app/X/S.xpc/S", "/A/Foo.app"},
      {"/S.xpc/A.App/x", "/S.xpc/A.App"},
      {"/L/S.XPC/S", "/L/S.XPC"},
      {"/A/Foo.app", "/A/Foo.app"},
      {"/A/Foo.APP", std::nullopt},  // at the end in lower case only
  };
  for (const auto& [path, bundle] : paths)
    EXPECT_EQ(RunningProcessMetadataResolver::bundlePath(path), bundle) << path;
}

/// Asks a cache for pids, counting the look-ups.
struct CountingLookup {
  RunningProcessMetadataCache cache;
  FakeClock clock;
  std::optional<Metadata> answer;
  int lookups = 0;

  std::optional<Metadata> resolve(std::int32_t pid) {
    return cache.resolve(pid, clock.now(), [this](std::int32_t) {
      ++lookups;
      return answer;
    });
  }
};

TEST(RunningProcessMetadataCache, KeepsHitsLongerThanMisses) {
  CountingLookup known;
  const auto lookupsAfter = [&](double seconds) {
    known.clock.advance(seconds);
    const bool found = known.resolve(7).has_value();
    EXPECT_EQ(found, known.lookups > 1);
    return known.lookups;
  };
  EXPECT_EQ(lookupsAfter(0), 1);
  known.answer = Metadata{"/bin/x", {}, {}};
  EXPECT_EQ(lookupsAfter(15), 1);
  EXPECT_EQ(lookupsAfter(0.001), 2);
  EXPECT_EQ(lookupsAfter(120), 2);
  EXPECT_EQ(lookupsAfter(0.001), 3);
}

TEST(RunningProcessMetadataCache, PrunesOldEntriesAndKeepsTheNewest) {
  CountingLookup known;
  for (std::int32_t pid = 0; pid < 63; ++pid) known.resolve(pid);
  known.clock.advance(120.5);
  EXPECT_EQ(known.cache.size(), 63U);
  known.resolve(63);  // the 64th look-up prunes
  EXPECT_EQ(known.cache.size(), 1U);
  known.clock.advance(100);
  known.resolve(63);
  known.clock.advance(120);
  for (std::int32_t pid = 100; pid < 163; ++pid) known.resolve(pid);
  EXPECT_EQ(known.cache.size(), 64U) << "what was looked up again counts from then";
  for (std::int32_t pid = 1000; pid < 6000; ++pid) {
    known.clock.advance(0.001);
    known.resolve(pid);
  }
  EXPECT_EQ(known.cache.size(), 4096U);
  known.lookups = 0;
  known.resolve(5999);
  known.resolve(6000 - 4096);
  EXPECT_EQ(known.lookups, 0) << "the newest stayed";
  known.resolve(6000 - 4097);
  EXPECT_EQ(known.lookups, 1) << "the oldest went";
}

}  // namespace
}  // namespace quenzel
