#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/BundleInformation.hpp"
#include "Platform/HostCPUTicks.hpp"
#include "Platform/Linux/ProcessTable.hpp"
#include "Platform/RunningProcesses.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::TaskStat;
using Text = std::optional<std::string>;

TEST(LinuxRunningProcesses, RecordsApplicationsAndServices) {
  const std::string app = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/";
  const std::pair<std::string, const char*> rows[] = {
      {app + "app-org.kde.konsole-1234abcd.scope\n", "org.kde.konsole"},
      {app + "app-gnome-gnome\\x2dcalculator-77.scope", "gnome-calculator"},
      {app + "app-org.kde.discover@autostart.service", "org.kde.discover"},
      {app + "app-flatpak-org.mozilla.firefox.service", "org.mozilla.firefox"},
      {app + "foot.service/inner/deeper\n", "foot"},
      {"0::/system.slice/getty@tty1.service", "getty@tty1"},
      {"12:cpu,cpuacct:/docker\n1:name=systemd:/system.slice/cron.service\n0::/\n", "cron"},
      {"4:memory:/system.slice/wrong.service\n0::/system.slice/right.service\n", "right"},
      {"0::/user.slice/user-1000.slice/session-2.scope\n", nullptr},
      {"0::/app-.scope", nullptr},
      {"0::/.service", nullptr},
  };
  const SystemTree tree;
  const auto processes = platform::makeRunningProcesses();
  EXPECT_FALSE(processes->runningApplication(1));
  for (const auto& [cgroup, identifier] : rows) {
    tree.process(1, {{"cgroup", cgroup}});
    const auto expected = platform::RunningApplication{{}, identifier ? Text(identifier) : Text()};
    EXPECT_EQ(processes->runningApplication(1), identifier ? std::optional(expected) : std::nullopt)
        << cgroup;
  }
}

TEST(LinuxRunningProcesses, FindsExecutables) {
  const auto processes = platform::makeRunningProcesses();
  EXPECT_EQ(processes->executablePath(::getpid()), std::filesystem::canonical("/proc/self/exe").string());
  const TemporaryDirectory folder;
  const std::string odd = folder.write("really (deleted)", "");
  // The executable's link, the process's name (none without a process), its arguments ("|" between them), and
  // what it is called.
  const std::array<std::string, 4> rows[] = {
      {"/usr/lib/fire fox/firefox", "x", "/bin/y", "/usr/lib/fire fox/firefox"},
      {"/usr/bin/upgraded (deleted)", "x", "/bin/y", "/usr/bin/upgraded"},
      {odd, "x", "/bin/y", odd},
      {"/memfd:runner (deleted)", "3", "/bin/y", "runner"},
      {"/memfd: (deleted)", "3", "/bin/y|--key", "/bin/y"},
      {"/memfd:a:/proc/self/exe (deleted)", "runner", "runner|--key", "runner"},
      {"", "dbus-daemon", "/usr/bin/dbus-daemon|--key=secret", "/usr/bin/dbus-daemon"},
      {"", "a-cut-name-of-15", "/opt/My Tool/a-cut-name-of-15-bytes|-k",
       "/opt/My Tool/a-cut-name-of-15-bytes"},
      {"", "sshd", "sshd: user /secret", "sshd"},
      {"", "titled", "/usr/bin/titled --key=secret", "titled"},
      {"", "zombie", "", "zombie"},
      {"", "", "/bin/y", "none"},
  };
  for (const auto& [link, name, arguments, called] : rows) {
    const SystemTree machine;
    std::string list = arguments;
    std::replace(list.begin(), list.end(), '|', '\0');
    machine.process(7, {{"cmdline", list}});
    if (!link.empty()) machine.process(7, {{"exe", link}});
    if (!name.empty()) machine.process(7, {{"stat", taskStatText(7, name.substr(0, 15), 1, 1)}});
    EXPECT_EQ(processes->executablePath(7).value_or("none"), called) << link << arguments;
  }
}

const std::string kernelThread =
    "2 (kthreadd) S 0 0 0 0 -1 2129984 0 0 0 0 0 7 0 0 20 0 1 0 3 0 0 18446744073709551615 "
    "0 0 0 0 0 0 0 2147483647 0 0 0 0 0 1 0 0 0 0 0\n";
const std::string listStart = "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>";
const std::string listEnd = "</dict></plist>";

TEST(LinuxRunningProcesses, ReadsTheIdentifiersOfBundles) {
  const TemporaryDirectory folder;
  const auto processes = platform::makeRunningProcesses();
  const std::tuple<std::string, std::string, Text> rows[] = {
      {"A.app/Contents/Info.plist", listStart + "<string>org.a</string>" + listEnd, "org.a"},
      {"B.xpc/Info.plist", listStart + "<string>org.b</string>" + listEnd, "org.b"},
      {"C.app/Contents/Info.plist", listStart + "<integer>5</integer>" + listEnd, {}},
      {"D.app/Contents/Info.plist", "not a property list", {}}};
  EXPECT_FALSE(processes->bundleIdentifier("A.app")) << "no place";
  for (const auto& [file, text, identifier] : rows) {
    folder.write(file, text);
    EXPECT_EQ(processes->bundleIdentifier(folder / file.substr(0, 5)), identifier) << file;
  }
}

TEST(LinuxBundleInformationDeathTest, ReadsThePropertyListOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // each row in a fresh process, which reads the bundle once
  std::optional<TemporaryDirectory> folder(std::in_place);
  const std::string good = folder->write("Info.plist", listStart + "<string>org.x</string>" + listEnd);
  const std::pair<std::string, const char*> rows[] = {{good, "1 entries, org.x"}, {"/no", "0 entries, none"}};
  for (const auto& row : rows) {
    const auto look = [&] {
      setEnvironmentValue("QZL_INFO_PLIST", row.first);
      const auto& bundle = platform::mainBundle();
      setEnvironmentValue("QZL_INFO_PLIST", "/changed/later");
      const auto* const info = platform::mainBundle().infoDictionary();
      std::cerr << (info ? info->size() : 0) << " entries, " << bundle.bundleIdentifier().value_or("none");
      folder.reset();  // nothing else removes the folder of a process that exits here
      std::exit(0);
    };
    EXPECT_EXIT(look(), ::testing::ExitedWithCode(0), row.second);
  }
}

TEST(LinuxHostCPUTicks, AddsUpTheKernelsStates) {
  using Ticks = platform::CPUTicks;
  const std::pair<const char*, std::optional<Ticks>> rows[] = {
      // user nice system idle iowait irq softirq steal guest guest_nice; user, system, idle, nice
      {"1000 200 30 40000 500 6 7 8 900 90", Ticks{1000, 51, 40500, 200}},
      {"4294967297 4294967296 1 4294967295 3 0 0 0 0 0", Ticks{1, 1, 2, 0}},
      {"10 20 30 40", Ticks{10, 30, 40, 20}},
      {"10 20 30", {}},
  };
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
    EXPECT_EQ(ticks->read(), (Ticks{9, 9, idle, 9})) << text;
  }
}

TEST(LinuxProcessTable, ReadsTasksWithAnyName) {
  const SystemTree tree;
  tree.process(41, {{"stat", taskStatText(41, "a) (b 9) S", 250, 50)},
                    {"io", "rchar: 6976\nread_bytes: 4096\nwrite_bytes: 512\ncancelled_write_bytes: 3\n"}});
  tree.process(5, {{"stat", taskStatText(5, "", 1, 2)}, {"cgroup", "0::/docker/abc\n"}});
  tree.process(9, {{"stat", "9 (cut short) S 1 9 700"}});
  tree.process(2, {{"stat", kernelThread}, {"cgroup", "0::/\n"}, {"cmdline", ""}});
  tree.folder().write("proc/12abc/stat", taskStatText(12, "no process", 1, 1));
  const platform::ProcessTable table(tree.proc());
  const std::vector<TaskStat> tasks = table.tasks();
  ASSERT_EQ(tasks.size(), 3u);
  EXPECT_EQ(tasks[2], (TaskStat{41, "a) (b 9) S", 'S', 700, false, 31, 17, 250, 50, -5, 3, 5041, 383, 6}));
  for (std::size_t index = 0; const char* const group : {"Linux kernel", "abc", "session 700"})
    EXPECT_EQ(table.group(tasks[index++]), group);
  EXPECT_EQ(platform::makeRunningProcesses()->executablePath(2), "Linux kernel");
  EXPECT_EQ(table.storage(41), (platform::TaskStorage{4096, 512}));
  EXPECT_FALSE(table.storage(5));
}

}  // namespace
}  // namespace quenzel::testing
