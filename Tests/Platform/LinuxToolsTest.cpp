#include <algorithm>
#include <array>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "MetricsCollectors/PowermetricsParser.hpp"
#include "Platform/Linux/PlatformProfile.hpp"
#include "Platform/Linux/PowermetricsReport.hpp"
#include "Tests/Support/Command.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::PowermetricsScan;
using platform::TaskStat;
using namespace ::testing;

/// Runs a stand-in as its users do.
CommandResult tool(const std::string& command) {
  return runCommand(QUENZEL_TOOL_DIRECTORY "/usr/" + command);
}

std::string squeezed(std::string text) {
  const auto areBlank = [](char left, char right) { return left == ' ' && right == ' '; };
  text.erase(std::unique(text.begin(), text.end(), areBlank), text.end());
  return text;
}

/// A task whose minor and major page faults equal its user and system ticks.
TaskStat task(std::int32_t pid, std::string name, std::uint64_t user, std::uint64_t system,
              std::uint64_t start) {
  return {pid, std::move(name), 'S', 70, false, user, system, user, system, -5, 3, start, 1024, 6};
}

/// Two seconds at 100 ticks a second, in which the processors gave 150 ticks to tasks.
const PowermetricsScan before{
    10,
    {.user = 1000, .idle = 5000},
    {task(7, "editor", 100, 40, 1), task(8, "old", 900, 0, 2), task(9, "ended", 70, 0, 3)},
    {{7, {1000, 50}}},
    {}};
const PowermetricsScan after{
    12,
    {.user = 1150, .idle = 5250},
    {task(7, "editor", 160, 60, 1), task(8, "new", 10, 0, 80), task(11, "late", 4, 6, 90)},
    {{7, {5000, 250}}, {11, {8, 2}}},
    {}};

TEST(PowermetricsReport, MeasuresTasksBetweenTwoScans) {
  const auto report = taskReport(before, after, {{7, "app.scope"}, {11, "app.scope"}}, 100);
  const auto page = ::sysconf(_SC_PAGESIZE);
  EXPECT_EQ(
      squeezed(taskSection(report, true)),
      fmt::format("*** Running tasks ***\n\n"
                  "Name ID CPU ms/s User% Threads State Nice Last CPU Session Start (ticks) Resident (KB) "
                  "Faults/s Page-ins/s Bytes read/s Bytes written/s GPU ms/s \n"
                  "app.scope 7 450.00 71.11 6 - - - - - {1} 32.00 13.00 2004.00 101.00 0.00 \n"
                  " editor 7 400.00 75.00 3 S -5 6 70 1 {0} 30.00 10.00 2000.00 100.00 0.00 \n"
                  " late 11 50.00 40.00 3 S -5 6 70 90 {0} 2.00 3.00 4.00 1.00 0.00 \n"
                  "new 8 50.00 100.00 3 - - - - - {0} 5.00 0.00 - - 0.00 \n"
                  " new 8 50.00 100.00 3 S -5 6 70 80 {0} 5.00 0.00 - - 0.00 \n"
                  "DEAD_TASKS 0 250.00 0.00 0 - - - - - 0 0.00 0.00 - - 0.00 \n"
                  "ALL_TASKS -2 750.00 49.33 9 - - - - - {2} 37.00 13.00 2004.00 101.00 0.00 \n\n",
                  page, page * 2, page * 3));
  // More time in tasks than the processors report, as rounding gives: never below 0.
  PowermetricsScan less = after;
  less.processors.user = 1090;
  EXPECT_DOUBLE_EQ(taskReport(before, less, {}, 100).dead.cpuMs, 0);
}

TEST(PowermetricsReport, KeepsEveryCellUnderItsHeader) {
  const auto line = [](auto... cells) { return fmt::format("{:<36}{:<9}{:<12}{:<8}{:<10}\n", cells...); };
  PowermetricsScan end = after;
  end.tasks.clear();
  std::string expected = "*** Running tasks ***\n\n" + line("Name", "ID", "CPU ms/s", "User%", "GPU ms/s") +
                         line(std::string(35, 'g'), 4194304, "0.00", "0.00", "0.00");
  const std::pair<std::string, std::string> names[] = {{std::string(60, 'x'), std::string(33, 'x')},
                                                       {"caf\xC3\xA9 \xE2\x98", "caf? ?"},
                                                       {"  ", "?"},
                                                       {"a\tb\nc", "a?b?c"},
                                                       {" ~\x7F", "~?"},
                                                       // what would pass for another line of the report
                                                       {"ANE \xBFPower: 9W", "?ANE Power: 9W"},
                                                       {"x power", "?x power"},
                                                       {"Powers of 2", "Powers of 2"},
                                                       {"all_tasks", "?all_tasks"},
                                                       {"Dead_Tasks 2", "?Dead_Tasks 2"},
                                                       {" * x", "?* x"}};
  std::map<std::int32_t, std::string> groups;
  for (std::int32_t pid = 4194304; const auto& [name, shown] : names) {
    groups[pid] = std::string(80, 'g');
    end.tasks.push_back(task(pid, name, 0, 0, 1));
    expected += line("  " + shown, pid++, "0.00", "0.00", "0.00");
  }
  EXPECT_EQ(taskSection(taskReport(before, end, groups, 100), false),
            expected + line("DEAD_TASKS", 0, "750.00", "0.00", "0.00") +
                line("ALL_TASKS", -2, "750.00", "0.00", "0.00") + '\n');
}

TEST(PowermetricsReport, ReckonsPowerFromEnergy) {
  const auto energy = [](const std::array<std::int64_t, 5>& microjoules) {
    std::vector<platform::EnergyModelChannel> all;
    for (const char* const name :
         {"package-0 CPU Energy", "package-1 CPU Energy", "package-0 GPU Energy", "DRAM0", "psys"})
      all.push_back({"Energy Model", name, "uJ", microjoules[all.size()]});
    return all;
  };
  const std::string title = "**** Processor usage ****\n\n";
  PowermetricsScan start = before;
  PowermetricsScan end = after;
  end.energy = energy({5'000'100, 1'000'000, 500'007, 1, 20'000'005});
  EXPECT_FALSE(measuredPower(start, end) || measuredPower(end, start));
  start.energy = energy({100, 0, 7, 0, 5});
  EXPECT_THAT(powerSection(measuredPower(start, end)), HasSubstr("\nSystem Power: 10000 mW\n"));
  start.energy->pop_back();  // a counter that has only just appeared tells nothing
  EXPECT_EQ(powerSection(measuredPower(start, end), "refused"),
            title + "CPU Power: 3000 mW\nGPU Power: 250 mW\nCombined Power (CPU + GPU + ANE): 3250 mW\n\n");
  // 150 busy of 400 ticks: 0.8 + 14.2 * 0.375
  EXPECT_EQ(powerSection(modelledPower(start, end)),
            title +
                "Modelled hardware: these figures are modelled from the measured load.\n"
                "CPU Power: 6125 mW\nCombined Power (CPU + GPU + ANE): 6125 mW\n\n");
  EXPECT_EQ(platform::powerSection({}), title + "No energy counters are readable on this machine.\n\n");
  EXPECT_EQ(platform::powerSection({}, "refused"), title + "Energy counters: refused\n\n");
}

TEST(PowermetricsTool, LetsNoNamePassForAFigure) {
  SystemTree tree;
  tree.processors("60 0 40 900 0 0 0 0 0 0", "100.50");
  tree.process(1, {{"stat", taskStatText(1, "CPU Power: 900W", 5, 5)}, {"cgroup", "0::/GPU Power: 9W"}});
  const std::string command =
      "bin/powermetrics -n 1 -i 20 --show-process-energy --show-process-gpu --show-process-io "
      "--show-process-coalition --show-process-netstats --show-process-qos --show-usage-summary --samplers ";
  EXPECT_THAT(tool(command + "tasks --show-all").output, Not(HasSubstr("\nCPU Power: ")));
  EXPECT_THAT(tool(command + "tasks").output,
              AllOf(HasSubstr("ALL_TASKS"), Not(HasSubstr("Processor usage"))));
  tree.set("QZL_MODEL_HARDWARE", "1");
  const auto seen = PowermetricsParser().parse(tool(command + "all").output);
  EXPECT_EQ(seen.processes.size(), 1U);
  EXPECT_DOUBLE_EQ(seen.cpuPackageW, 0.8);
  EXPECT_DOUBLE_EQ(seen.combinedPackageW, 0.8);
}

TEST(StandInTools, RefuseWhatTheyDontKnow) {
  const std::tuple<std::string, int, std::string> rows[] = {
      {"bin/powermetrics --nonsense", 64, "powermetrics: unrecognized option: --nonsense\n"},
      {"bin/powermetrics -n", 64, "powermetrics: option needs a value: -n\n"},
      {"bin/powermetrics -s tasks,magic", 64, "powermetrics: unrecognized sampler: magic\n"},
      {"bin/pmset -b lowpowermode 1", 1, "pmset: expected -g or -a lowpowermode 0|1; see pmset --help\n"},
      {"bin/pmset -g", 1, "pmset: lowpowermode is not supported: this machine has no platform profiles\n"},
      {"sbin/ioreg -rZa", 1, "ioreg: unrecognized option: -Z\n"},
      {"sbin/ioreg -n AppleSmartBattery", 1, "ioreg: expected -r -a and -n or -c; see ioreg --help\n"},
      {"sbin/ioreg -r -n AppleSmartBattery -a", 0, ""},
      {"bin/powermetrics --help > /dev/full", 1, ""},
  };
  const SystemTree tree;
  for (const auto& [command, status, output] : rows)
    EXPECT_EQ(tool(command), (CommandResult{status, output})) << command;
  EXPECT_TRUE(tool("bin/powermetrics -h").output.starts_with("Usage: "));
}

TEST(PsTool, ShowsEveryProcessAndNoArguments) {
  const std::string ps = QUENZEL_TOOL_DIRECTORY "/bin/ps ", secret = "; : secret";
  for (const auto& [name, shown] : {std::pair("", " ?\\?\n"), std::pair("a b ", "a b \\?\n")}) {
    ::prctl(PR_SET_NAME, name);
    const std::string all = runCommand(ps + "-A -ww -o pid=,ppid=,%cpu=,%mem=,command=" + secret).output;
    EXPECT_THAT(all,
                ContainsRegex(fmt::format("(^|\n) *{} +[0-9]+ +[0-9.]+ +[0-9.]+ {}", ::getpid(), shown)));
    EXPECT_THAT(all, Not(HasSubstr("secret")));
  }
  EXPECT_THAT(runCommand(ps + "-o args=,pid=,cmd= -p $$" + secret).output, MatchesRegex("sh +[0-9]+ sh\n"));
  for (const char* const wrong : {"-o nonsense", "-o pid= >/dev/full"})
    EXPECT_EQ(runCommand(ps + wrong).status, 1);
}

TEST(PmsetTool, SwitchesThePlatformProfile) {
  EXPECT_EQ(platform::profileFor(false, "low-power quiet performance"), "quiet");
  SystemTree tree;
  const std::string profile = "sys/firmware/acpi/platform_profile";
  const std::string notice = "Modelled hardware: this machine has no platform profiles.\n";
  const std::string inUse = "Currently in use:\n lowpowermode         ";
  tree.set("QZL_MODEL_HARDWARE", "1");
  EXPECT_EQ(tool("bin/pmset -g").output, notice + inUse + "0\n");
  EXPECT_EQ(tool("bin/pmset -a lowpowermode 1").output, notice);
  EXPECT_EQ(tool("bin/pmset -g").output, notice + inUse + "1\n");
  tree.folder().write(profile + "_choices", "low-power quiet balanced performance\n");
  tree.folder().write(profile, "performance\n");
  // Off already, on, and off again.
  for (const auto& [enabled, written] :
       {std::pair("0", "performance\n"), std::pair("1", "low-power"), std::pair("0", "balanced")}) {
    EXPECT_EQ(tool(std::string("bin/pmset -a lowpowermode ") + enabled).status, 0);
    EXPECT_EQ(tree.folder().read(profile), written);
    EXPECT_EQ(tool("bin/pmset -g").output, inUse + enabled + "\n");
  }
  tree.folder().write(profile + "_choices", "balanced performance\n");
  EXPECT_EQ(tool("bin/pmset -a lowpowermode 1"),
            (CommandResult{1, "pmset: this machine offers no low-power platform profile\n"}));
}

}  // namespace
}  // namespace quenzel::testing
