#include <cstdlib>
#include <iostream>
#include <optional>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/BundleInformation.hpp"
#include "Platform/HostCPUTicks.hpp"
#include "Platform/Linux/ControlGroup.hpp"
#include "Platform/Linux/ProcessTable.hpp"
#include "Platform/RunningProcesses.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::CPUTicks;
using platform::RunningApplication;
using platform::TaskStat;

TEST(LinuxControlGroup, NamesWhatRunsInAUnit) {
  const struct {
    const char* unit;
    std::optional<std::string> identifier;
  } rows[] = {
      {"app-org.kde.konsole-1234abcd.scope", "org.kde.konsole"},
      {"app-gnome-org.gnome.Terminal-4321.scope", "org.gnome.Terminal"},
      {"app-gnome-gnome\\x2dcalculator-77.scope", "gnome-calculator"},
      {"app-firefox.scope", "firefox"},
      {"app-org.kde.discover@autostart.service", "org.kde.discover"},
      {"app-flatpak-org.mozilla.firefox.service", "org.mozilla.firefox"},
      {"app-bad\\x2.service", "bad\\x2"},
      {"sshd.service", "sshd"},
      {"getty@tty1.service", "getty@tty1"},
      {"session-2.scope", std::nullopt},
      {"init.scope", std::nullopt},
      {"app-.scope", std::nullopt},
      {".service", std::nullopt},
      {"user.slice", std::nullopt},
  };
  for (const auto& row : rows)
    EXPECT_EQ(platform::applicationIdentifier(row.unit), row.identifier) << row.unit;
}

TEST(LinuxRunningProcesses, RecordsApplicationsAndServices) {
  const char* const userPath = "/user.slice/user-1000.slice/user@1000.service/app.slice/";
  const struct {
    std::string cgroup;
    std::optional<std::string> identifier;
  } rows[] = {
      {std::string("0::") + userPath + "app-gnome-org.gnome.Terminal-9.scope\n", "org.gnome.Terminal"},
      {std::string("0::") + userPath + "foot.service/inner/deeper\n", "foot"},
      {"12:cpu,cpuacct:/docker\n1:name=systemd:/system.slice/cron.service\n0::/\n", "cron"},
      {"4:memory:/system.slice/wrong.service\n0::/system.slice/right.service\n", "right"},
      {"0::/user.slice/user-1000.slice/session-2.scope\n", std::nullopt},
      {"0::/\n", std::nullopt},
      {"", std::nullopt},
  };
  const SystemTree tree;
  const auto processes = platform::makeRunningProcesses();
  std::int32_t pid = 100;
  for (const auto& row : rows) {
    tree.process(++pid, {{"cgroup", row.cgroup}});
    const auto expected =
        row.identifier ? std::optional(RunningApplication{std::nullopt, row.identifier}) : std::nullopt;
    EXPECT_EQ(processes->runningApplication(pid), expected) << row.cgroup;
  }
  EXPECT_FALSE(processes->runningApplication(1));
}

TEST(LinuxRunningProcesses, FindsExecutablesAndBundles) {
  const SystemTree tree;
  tree.process(7, {{"exe", "/usr/lib/fire fox/firefox"}});
  tree.process(8, {{"exe", "/usr/bin/upgraded (deleted)"}});
  const auto processes = platform::makeRunningProcesses();
  EXPECT_EQ(processes->executablePath(7), "/usr/lib/fire fox/firefox");
  EXPECT_EQ(processes->executablePath(8), "/usr/bin/upgraded");
  EXPECT_FALSE(processes->executablePath(9));

  const auto info = [](const char* identifier) {
    return std::string("<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>") + identifier +
           "</dict></plist>";
  };
  tree.folder().write("A.app/Contents/Info.plist", info("<string>org.a</string>"));
  tree.folder().write("B.xpc/Info.plist", info("<string>org.b</string>"));
  tree.folder().write("C.app/Contents/Info.plist", info("<integer>5</integer>"));
  tree.folder().write("D.app/Contents/Info.plist", "not a property list");
  EXPECT_EQ(processes->bundleIdentifier(tree.folder() / "A.app"), "org.a");
  EXPECT_EQ(processes->bundleIdentifier(tree.folder() / "B.xpc"), "org.b");
  for (const char* const none : {"C.app", "D.app", "E.app"}) {
    EXPECT_FALSE(processes->bundleIdentifier(tree.folder() / none)) << none;
  }
}

TEST(LinuxRunningProcesses, KnowsThisVeryProcess) {
  EXPECT_EQ(platform::makeRunningProcesses()->executablePath(::getpid()),
            std::filesystem::canonical("/proc/self/exe").string());
}

TEST(LinuxBundleInformationDeathTest, ReadsThePropertyListOnce) {
  GTEST_FLAG_SET(death_test_style,
                 "threadsafe");  // a fresh process for each row: the bundle is read once in a process
  std::optional<SystemTree> tree(std::in_place);
  const std::string good = tree->folder().write(
      "Info.plist",
      "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>org.x</string></dict></plist>");
  const std::string bad = tree->folder().write("bad.plist", "<plist");
  const struct {
    std::optional<std::string> path;
    const char* seen;
  } rows[] = {{good, "entries=1 identifier=org.x"},
              {bad, "no entries"},
              {"/nowhere", "no entries"},
              {std::nullopt, "no entries"}};
  for (const auto& row : rows) {
    const auto look = [&] {
      platform::setEnvironmentValue("QZL_INFO_PLIST", row.path);
      const auto& bundle = platform::mainBundle();
      platform::setEnvironmentValue("QZL_INFO_PLIST", "/changed/later");
      const auto* const info = platform::mainBundle().infoDictionary();
      const std::string seen = info ? "entries=" + std::to_string(info->size()) : "no entries";
      std::cerr << seen << " identifier=" << bundle.bundleIdentifier().value_or("none");
      tree.reset();  // nothing else removes the folder of a process that exits here
      std::exit(0);
    };
    EXPECT_EXIT(look(), ::testing::ExitedWithCode(0), row.seen);
  }
}

TEST(LinuxHostCPUTicks, AddsUpTheKernelsStates) {
  const struct {
    const char* ticks;
    std::optional<CPUTicks> expected;
  } rows[] = {
      // user nice system idle iowait irq softirq steal guest guest_nice
      {"1000 200 30 40000 500 6 7 8 900 90",
       CPUTicks{.user = 1000, .system = 51, .idle = 40500, .nice = 200}},
      {"4294967297 4294967296 1 4294967295 3 0 0 0 0 0",
       CPUTicks{.user = 1, .system = 1, .idle = 2, .nice = 0}},
      {"10 20 30 40", CPUTicks{.user = 10, .system = 30, .idle = 40, .nice = 20}},
      {"10 20 30", std::nullopt},
      {"", std::nullopt},
  };
  const SystemTree tree;
  const auto ticks = platform::makeHostCPUTicks();
  EXPECT_FALSE(ticks->read());
  for (const auto& row : rows) {
    tree.processors(row.ticks, "1.00");
    EXPECT_EQ(ticks->read(), row.expected) << row.ticks;
  }
}

TEST(LinuxProcessTable, ReadsTasksWithAnyName) {
  const SystemTree tree;
  tree.process(41, {{"stat", taskStatText(41, "a) (b 9) S", 250, 50)},
                    {"io", "rchar: 6976\nread_bytes: 4096\nwrite_bytes: 512\ncancelled_write_bytes: 3\n"}});
  tree.process(5, {{"stat", taskStatText(5, "", 1, 2)}, {"cgroup", "0::/docker/abc\n"}});
  tree.process(9, {{"stat", "9 (cut short) S 1 9 700"}});
  tree.process(2, {{"stat",
                    "2 (kthreadd) S 0 0 0 0 -1 2129984 0 0 0 0 0 7 0 0 20 0 1 0 3 0 0 18446744073709551615 "
                    "0 0 0 0 0 0 0 2147483647 0 0 0 0 0 1 0 0 0 0 0\n"},
                   {"cgroup", "0::/\n"}});
  tree.folder().write("proc/12abc/stat", taskStatText(12, "no process", 1, 1));
  const platform::ProcessTable table(tree.proc());
  const std::vector<TaskStat> tasks = table.tasks();
  ASSERT_EQ(tasks.size(), 3u);
  const TaskStat expected{.pid = 41,
                          .name = "a) (b 9) S",
                          .state = 'S',
                          .session = 700,
                          .kernelThread = false,
                          .minorFaults = 31,
                          .majorFaults = 17,
                          .userTicks = 250,
                          .systemTicks = 50,
                          .nice = -5,
                          .threads = 3,
                          .startTicks = 5041,
                          .residentPages = 383,
                          .lastProcessor = 6};
  EXPECT_EQ(tasks[2], expected);
  EXPECT_EQ(table.group(tasks[0]), "kernel");
  EXPECT_EQ(table.group(tasks[1]), "abc");
  EXPECT_EQ(table.group(tasks[2]), "session 700");
  EXPECT_EQ(table.storage(41), (platform::TaskStorage{4096, 512}));
  EXPECT_FALSE(table.storage(5));
}

}  // namespace
}  // namespace quenzel::testing
