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

using namespace ::testing;
using namespace quenzel::testing;
using Metadata = RunningProcessMetadata;

/// A sampler over texts, with metadata and files of the test's choosing.
class ProcessSampling : public Test {
 protected:
  ProcessSampler sampler() {
    const auto lookup = [this](std::int32_t pid) {
      lookups_.push_back(pid);
      const auto known = metadata_.find(pid);
      return known == metadata_.end() ? std::nullopt : std::optional(known->second);
    };
    return ProcessSampler(shell_, {lookup, cache_, [this](const auto& path) { return files_.contains(path); },
                                   clock_.provider(), profiler_});
  }

  FakeShell shell_;
  FakeClock clock_;
  RunningProcessMetadataCache cache_;
  std::map<std::int32_t, Metadata> metadata_;
  std::set<std::string> files_;
  std::vector<std::int32_t> lookups_;
  ComponentProfiler profiler_;
};

TEST_F(ProcessSampling, RanksByCPUThenPidWithinTheLimit) {
  shell_.output("/bin/ps", "10 1 5.0 0 a\r\n3 1 5.0 0 b\u2028 7 0 9.0 0 c\n\n8 1 0.0 0 d\n");
  const std::pair<std::int64_t, std::string> rows[] = {
      {2, "cb"}, {0, "c"}, {-9, "c"}, {1000, "cbad"}, {INT64_MAX, "cbad"}};
  for (const auto& [limit, expected] : rows) {
    std::string names;
    for (const ProcessSample& sample : sampler().sampleTopProcesses(limit)) names += sample.name;
    EXPECT_EQ(names, expected) << limit;
  }
  EXPECT_EQ(shell_.calls().at(0),
            (FakeShell::Call{"/bin/ps", {"-A", "-ww", "-o", "pid=,ppid=,%cpu=,%mem=,command="}}));
}

TEST_F(ProcessSampling, CountsUnreadableRowsAndLogsNamesOnOneLineWhenAsked) {
  shell_.output(
      "/bin/ps",
      "10 1 5,0 0,1 /a secret\n \n7\t1 9.126 .5  c\x1B[2J -x \n8 1 8.0\n8 1 8.0 0  \nx 1 8.0 0 d\n");
  const auto sample = [&] { EXPECT_EQ(sampler().sampleProcesses(9, false).unreadableRows, 4U); };
  const std::string unreadable = "[WARN] [ProcessSampler] rows of ps that can't be read: 4";
  metadata_[7] = {"/opt/a\n[1.000] [ERROR] [Daemon] forged", {}, {}};
  EXPECT_THAT(linesLoggedBy(sample), ElementsAre(unreadable));
  const ScopedEnvironment debugging{{{"QZL_PROCESS_NAME_DEBUG", "1"}}};
  EXPECT_THAT(linesLoggedBy(sample), ElementsAre("[INFO] [ProcessSampler] pid=7 cpu=9.13 raw=c?[2J -x "
                                                 "resolved=/opt/a?[1.000] [ERROR] [Daemon] forged",
                                                 unreadable));
}

TEST_F(ProcessSampling, BuildsTheTreeWithOneLookupAProcess) {
  metadata_[7] = {"/opt/c", {}, "org.c"};
  shell_.output("/bin/ps", "10 1 5.0 0 a\n7 0 9.0 0 c\n");
  ProcessSamplingSnapshot snapshot;
  EXPECT_THAT(linesLoggedBy([&] { snapshot = sampler().sampleProcessTree(1); }), ElementsAre());
  const ProcessSample busiest{.pid = 7, .name = "/opt/c", .bundleID = "org.c", .cpuPercent = 9};
  EXPECT_THAT(snapshot.allProcesses,
              ElementsAre(ProcessSample{.pid = 10, .parentPID = 1, .name = "a", .cpuPercent = 5}, busiest));
  EXPECT_THAT(snapshot.sampledProcesses, ElementsAre(busiest));
  EXPECT_THAT(lookups_, ElementsAre(10, 7));
  clock_.advance(121);
  sampler().sampleTopProcesses(1);
  EXPECT_THAT(lookups_, ElementsAre(10, 7, 7)) << "what is not returned is not looked up";
}

TEST_F(ProcessSampling, PassesFailuresOnAndTakesImpossibleListsForFatal) {
  shell_.reply("/bin/ps", ShellResult{1, "12 1 0 0 x\n", "bad"})
      .output("/bin/ps", "7 1 0 0 a\n7 1 0 0 b\n")
      .output("/bin/ps", "4294967296 1 0 0 a\n");
  const auto error = thrownBy<ShellRunnerError>([this] { sampler().sampleTopProcesses(5); });
  EXPECT_EQ(error.kind(), ShellRunnerError::Kind::nonZeroExit);
  EXPECT_EQ((ShellResult{error.status(), error.stdout(), error.stderr()}),
            (ShellResult{1, "12 1 0 0 x\n", "bad"}));
  EXPECT_DEATH(sampler().sampleProcessTree(5), "Fatal error: ps listed process 7 twice");
  EXPECT_EQ(sampler().sampleTopProcesses(5).size(), 2U);  // only the tree needs pids to be unique
  EXPECT_DEATH(sampler().sampleTopProcesses(5), "Fatal error: ps listed the process id 4294967296");
}

TEST_F(ProcessSampling, ResolvesNames) {
  const std::string spaced = "/Applications/My Tool.app/Contents/MacOS/My Tool";
  files_ = {spaced, "/opt/a b/c", "/bin/tool", "/opt", "opt b/c"};
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

struct FakeProcesses : platform::RunningProcesses {
  MOCK_METHOD(std::optional<std::string>, executablePath, (std::int32_t), (override));
  MOCK_METHOD(std::optional<platform::RunningApplication>, runningApplication, (std::int32_t), (override));
  MOCK_METHOD(std::optional<std::string>, bundleIdentifier, (const std::string&), (override));
};

TEST(RunningProcessMetadata, IsResolvedFromPathBundleAndRecord) {
  using Application = platform::RunningApplication;
  const std::string f = "/A/F.app", g = "/A/G.app", inF = "/A/F.app/x";
  // The path of the executable, what runs as an application, and the bundle on disk that has an identifier.
  const std::tuple<std::optional<std::string>, std::optional<Application>, std::string,
                   std::optional<Metadata>>
      rows[] = {{{}, {}, "", {}},
                {"/usr/libexec/bar", {}, "", Metadata{"/usr/libexec/bar", {}, {}}},
                {inF, Application{g, "org.g"}, f, Metadata{inF, f, "org.disk"}},
                {inF, Application{g, "org.g"}, "", Metadata{inF, f, "org.g"}},
                {inF, Application{g, {}}, g, Metadata{inF, f, {}}},
                {{}, Application{g, {}}, g, Metadata{{}, g, "org.disk"}},
                {{}, Application{}, "", {}},
                {"/bin/caf\xE9", {}, "", Metadata{"/bin/caf\uFFFD", {}, {}}}};
  for (const auto& [path, application, onDisk, metadata] : rows) {
    NiceMock<FakeProcesses> processes;
    ON_CALL(processes, executablePath(7)).WillByDefault(Return(path));
    ON_CALL(processes, runningApplication(7)).WillByDefault(Return(application));
    int reads = 0;
    BundleIdentifierCache bundles([&, known = onDisk](const std::string& bundle) {
      ++reads;
      return bundle == known ? std::optional<std::string>("org.disk") : std::nullopt;
    });
    for (int round = 0; round < 2; ++round)
      EXPECT_EQ(RunningProcessMetadataResolver::resolveAmong(processes, bundles, 7), metadata)
          << path.value_or("(no path)");
    EXPECT_LE(reads, 1) << "a bundle is read once";
  }
  EXPECT_EQ(RunningProcessMetadataResolver::resolve(::getpid())->executablePath,
            std::filesystem::read_symlink("/proc/self/exe"));
}

TEST(RunningProcessMetadata, NamesTheOutermostBundle) {
  const std::pair<std::string, std::optional<std::string>> rows[] = {
      {"/A/Foo.APP/Contents/MacOS/Foo", "/A/Foo.APP"},
      {"/A/Foo.app/X/S.xpc/S", "/A/Foo.app"},
      {"/S.xpc/A.App/x", "/S.xpc/A.App"},
      {"/L/S.XPC/", "/L/S.XPC"},
      {"/A/Foo.app", "/A/Foo.app"},
      {"/A/Foo.xpc", "/A/Foo.xpc"},
      {"/A/Foo.APP", {}}};  // at the end in lower case only
  for (const auto& [path, bundle] : rows)
    EXPECT_EQ(RunningProcessMetadataResolver::bundlePath(path), bundle) << path;
}

struct RunningProcessMetadataCacheTest : Test {
  std::optional<Metadata> resolve(std::int32_t pid, double after = 0) {
    clock.advance(after);
    return cache.resolve(pid, clock.now(), [this](std::int32_t) { return ++lookups, answer; });
  }

  RunningProcessMetadataCache cache;
  FakeClock clock;
  std::optional<Metadata> answer;
  int lookups = 0;
};

TEST_F(RunningProcessMetadataCacheTest, KeepsHitsLongerThanMisses) {
  const std::pair<double, int> rows[] = {{0, 1}, {15, 1}, {0.001, 2}, {120, 2}, {0.001, 3}};
  for (const auto& [seconds, total] : rows) {
    EXPECT_EQ(resolve(7, seconds).has_value(), total > 1);
    EXPECT_EQ(lookups, total);
    answer = Metadata{"/bin/x", {}, {}};
  }
}

TEST_F(RunningProcessMetadataCacheTest, PrunesOldEntriesAndKeepsTheNewest) {
  for (std::int32_t pid = 0; pid < 63; ++pid) resolve(pid);
  clock.advance(120.5);
  EXPECT_EQ(cache.size(), 63U);
  resolve(63);  // the 64th look-up prunes
  EXPECT_EQ(cache.size(), 1U);
  resolve(63, 100);
  clock.advance(120);
  for (std::int32_t pid = 100; pid < 163; ++pid) resolve(pid);
  EXPECT_EQ(cache.size(), 64U) << "what was looked up again counts from then";
  for (std::int32_t pid = 1000; pid < 6000; ++pid) resolve(pid, 0.001);
  EXPECT_EQ(cache.size(), 4096U);
  lookups = 0;
  for (const int newest : {5999, 6000 - 4096}) resolve(newest);
  EXPECT_EQ(lookups, 0) << "the newest stayed";
  resolve(6000 - 4097);
  EXPECT_EQ(lookups, 1) << "the oldest went";
}

}  // namespace
}  // namespace quenzel
