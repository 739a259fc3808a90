#include <cstdlib>
#include <iostream>

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

using platform::RunningApplication;
using platform::TaskStat;
using Text = std::optional<std::string>;

TEST(LinuxControlGroup, NamesWhatRunsInAUnit) {
  // clang-format off
  const std::pair<const char*, Text> rows[] = {
      {"app-org.kde.konsole-1234abcd.scope", "org.kde.konsole"},      {"sshd.service", "sshd"},
      {"app-gnome-org.gnome.Terminal-4321.scope", "org.gnome.Terminal"}, {"getty@tty1.service", "getty@tty1"},
      {"app-gnome-gnome\\x2dcalculator-77.scope", "gnome-calculator"}, {"app-firefox.scope", "firefox"},
      {"app-org.kde.discover@autostart.service", "org.kde.discover"}, {"app-bad\\x2.service", "bad\\x2"},
      {"app-flatpak-org.mozilla.firefox.service", "org.mozilla.firefox"},
      {"session-2.scope", {}}, {"init.scope", {}}, {"app-.scope", {}}, {".service", {}}, {"user.slice", {}},
  };
  // clang-format on
  for (const auto& [unit, identifier] : rows)
    EXPECT_EQ(platform::applicationIdentifier(unit), identifier) << unit;
}

TEST(LinuxRunningProcesses, RecordsApplicationsAndServices) {
  const std::string userPath = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/";
  const std::pair<std::string, Text> rows[] = {
      {userPath + "app-gnome-org.gnome.Terminal-9.scope\n", "org.gnome.Terminal"},
      {userPath + "foot.service/inner/deeper\n", "foot"},
      {"12:cpu,cpuacct:/docker\n1:name=systemd:/system.slice/cron.service\n0::/\n", "cron"},
      {"4:memory:/system.slice/wrong.service\n0::/system.slice/right.service\n", "right"},
      {"0::/user.slice/user-1000.slice/session-2.scope\n", std::nullopt},
      {"0::/\n", std::nullopt},
      {"", std::nullopt},
  };
  const SystemTree tree;
  const auto processes = platform::makeRunningProcesses();
  EXPECT_FALSE(processes->runningApplication(1));
  for (const auto& [cgroup, identifier] : rows) {
    tree.process(1, {{"cgroup", cgroup}});
    EXPECT_EQ(processes->runningApplication(1),
              identifier ? std::optional(RunningApplication{std::nullopt, identifier}) : std::nullopt)
        << cgroup;
  }
}

TEST(LinuxRunningProcesses, FindsExecutablesAndBundles) {
  EXPECT_EQ(platform::makeRunningProcesses()->executablePath(::getpid()),
            std::filesystem::canonical("/proc/self/exe").string());
  const SystemTree tree;
  const auto processes = platform::makeRunningProcesses();
  const std::string odd = tree.folder().write("really (deleted)", "");
  const std::string kernelThread =
      "2 (kworker/0:1) I 2 0 0 0 -1 2129984 0 0 0 0 0 7 0 0 20 0 1 0 3 0 0 1 0 "
      "0 0 0 0 0 0 2147483647 0 0 0 0 0 1 0 0 0 0 0\n";
  // The executable's link, the process's name, its arguments, and what it is called.
  const std::tuple<Text, Text, std::string, Text> named[] = {
      {"/usr/lib/fire fox/firefox", "x", "/bin/y", "/usr/lib/fire fox/firefox"},
      {"/usr/bin/upgraded (deleted)", "x", "/bin/y", "/usr/bin/upgraded"},
      {odd, "x", "/bin/y", odd},
      {"/memfd:runner (deleted)", "3", "/bin/y", "runner"},
      {"/memfd: (deleted)", "3", "/bin/y --key", "/bin/y"},
      {"/memfd:a:/proc/self/exe (deleted)", "runner", "runner --key", "runner"},
      {{}, "dbus-daemon", "/usr/bin/dbus-daemon --key=secret", "/usr/bin/dbus-daemon"},
      {{},
       "a-cut-name-of-15",
       "/opt/My Tool/a-cut-name-of-15-bytes -k",
       "/opt/My Tool/a-cut-name-of-15-bytes"},
      {{}, "sshd", "sshd: user /secret", "sshd"},
      {{}, "titled", "/usr/bin/titled --key=secret", "titled"},
      {{}, "slash", "/opt/ ", "slash"},
      {{}, "folder", "/opt/", "folder"},
      {{}, "zombie", "", "zombie"},
      {{}, {}, "/bin/y", {}},
  };
  for (const auto& [link, name, arguments, called] : named) {
    SCOPED_TRACE(arguments);
    const SystemTree machine;
    if (link) machine.process(7, {{"exe", *link}});
    if (name) machine.process(7, {{"stat", taskStatText(7, name->substr(0, 15), 1, 1)}});
    std::string list = arguments;
    const bool isTitle = name == "titled" || name == "sshd";  // written over the arguments as one text
    if (const std::size_t end = list.find(" -"); end != std::string::npos && !isTitle) list[end] = '\0';
    machine.process(7, {{"cmdline", list}});
    EXPECT_EQ(processes->executablePath(7), called);
  }
  tree.process(2, {{"stat", kernelThread}, {"cmdline", ""}});
  EXPECT_EQ(processes->executablePath(2), "Linux kernel");

  const std::string start = "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>";
  const struct {
    const char* bundle;
    const char* list;
    std::string text;
    Text identifier;
  } rows[] = {{"A.app", "/Contents/Info.plist", start + "<string>org.a</string></dict></plist>", "org.a"},
              {"B.xpc", "/Info.plist", start + "<string>org.b</string></dict></plist>", "org.b"},
              {"C.app", "/Contents/Info.plist", start + "<integer>5</integer></dict></plist>", std::nullopt},
              {"D.app", "/Contents/Info.plist", "not a property list", std::nullopt},
              {"E.app", "/Contents/Other.plist", "", std::nullopt}};
  EXPECT_FALSE(processes->bundleIdentifier("A.app")) << "no place";
  for (const auto& row : rows) {
    tree.folder().write(std::string(row.bundle) + row.list, row.text);
    EXPECT_EQ(processes->bundleIdentifier(tree.folder() / row.bundle), row.identifier) << row.bundle;
  }
}

TEST(LinuxBundleInformationDeathTest, ReadsThePropertyListOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // each row in a fresh process, which reads the bundle once
  std::optional<SystemTree> tree(std::in_place);
  const std::string good = tree->folder().write(
      "Info.plist",
      "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>org.x</string></dict></plist>");
  const std::string bad = tree->folder().write("bad.plist", "<plist");
  const std::pair<Text, const char*> rows[] = {{good, "entries=1 identifier=org.x"},
                                               {bad, "no entries"},
                                               {"/nowhere", "no entries"},
                                               {std::nullopt, "no entries"}};
  for (const auto& row : rows) {
    const auto look = [&] {
      platform::setEnvironmentValue("QZL_INFO_PLIST", row.first);
      const auto& bundle = platform::mainBundle();
      platform::setEnvironmentValue("QZL_INFO_PLIST", "/changed/later");
      const auto* const info = platform::mainBundle().infoDictionary();
      std::cerr << (info ? "entries=" + std::to_string(info->size()) : "no entries")
                << " identifier=" << bundle.bundleIdentifier().value_or("none");
      tree.reset();  // nothing else removes the folder of a process that exits here
      std::exit(0);
    };
    EXPECT_EXIT(look(), ::testing::ExitedWithCode(0), row.second);
  }
}

TEST(LinuxHostCPUTicks, AddsUpTheKernelsStates) {
  // clang-format off
  const std::pair<const char*, std::optional<platform::CPUTicks>> rows[] = {
      // user nice system idle iowait irq softirq steal guest guest_nice
      {"1000 200 30 40000 500 6 7 8 900 90", {{.user = 1000, .system = 51, .idle = 40500, .nice = 200}}},
      {"4294967297 4294967296 1 4294967295 3 0 0 0 0 0", {{.user = 1, .system = 1, .idle = 2, .nice = 0}}},
      {"10 20 30 40", {{.user = 10, .system = 30, .idle = 40, .nice = 20}}},
      {"10 20 30", {}}, {"", {}},
  };
  // clang-format on
  const SystemTree tree;
  EXPECT_FALSE(platform::makeHostCPUTicks()->read());
  for (const auto& [text, expected] : rows) {
    tree.processors(text, "1.00");
    EXPECT_EQ(platform::makeHostCPUTicks()->read(), expected) << text;
  }
  // Counters that step back stand still until they are past where they were; only 2^32 wraps.
  const auto ticks = platform::makeHostCPUTicks();
  for (const auto& [text, idle] : {std::pair("9 9 9 4294967200 80", 4294967280u),
                                   {"8 8 8 4294967201 78", 4294967280u},
                                   {"9 9 9 4294967220 78", 2u}}) {
    tree.processors(text, "1.00");
    EXPECT_EQ(ticks->read(), (platform::CPUTicks{.user = 9, .system = 9, .idle = idle, .nice = 9})) << text;
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
  // clang-format off
  const TaskStat expected{
      .pid = 41,          .name = "a) (b 9) S",  .state = 'S',      .session = 700,    .kernelThread = false,
      .minorFaults = 31,  .majorFaults = 17,     .userTicks = 250,  .systemTicks = 50, .nice = -5,
      .threads = 3,       .startTicks = 5041,    .residentPages = 383, .lastProcessor = 6};
  // clang-format on
  EXPECT_EQ(tasks[2], expected);
  EXPECT_EQ(table.group(tasks[0]), "Linux kernel");
  EXPECT_EQ(table.group(tasks[1]), "abc");
  EXPECT_EQ(table.group(tasks[2]), "session 700");
  EXPECT_EQ(table.storage(41), (platform::TaskStorage{4096, 512}));
  EXPECT_FALSE(table.storage(5));
}

}  // namespace
}  // namespace quenzel::testing
