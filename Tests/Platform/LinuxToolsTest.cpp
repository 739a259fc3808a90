#include <array>
#include <atomic>
#include <csignal>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MetricsCollectors/PowermetricsParser.hpp"
#include "Platform/Linux/PlatformProfile.hpp"
#include "Platform/Linux/PowermetricsReport.hpp"
#include "Platform/PropertyList.hpp"
#include "Tests/Support/Command.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::PowermetricsScan;
using platform::TaskStat;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

/// Runs a stand-in as its users do.
CommandResult tool(const std::string& command) {
  return runCommand(QUENZEL_TOOL_DIRECTORY "/usr/" + command);
}

TaskStat task(std::int32_t pid, std::string name, std::uint64_t user, std::uint64_t system,
              std::uint64_t start) {
  return {.pid = pid, .name = std::move(name), .userTicks = user, .systemTicks = system, .startTicks = start};
}

/// Two seconds at 100 ticks a second, in which the processors gave 150 ticks to tasks.
// clang-format off
const PowermetricsScan before{
    10, {.user = 1000, .idle = 5000},
    {task(7, "editor", 100, 40, 1), task(8, "old", 900, 0, 2), task(9, "ended", 70, 0, 3)}, {{7, {1000, 50}}}, {}};
const PowermetricsScan after{
    12, {.user = 1150, .idle = 5250},
    {task(7, "editor", 160, 60, 1), task(8, "new", 10, 0, 80), task(11, "late", 4, 6, 90)},
    {{7, {5000, 250}}, {11, {8, 2}}}, {}};
// clang-format on

TEST(PowermetricsReport, MeasuresTasksBetweenTwoScans) {
  const auto report = taskReport(before, after, {{7, "app.scope"}, {8, "cron.service"}, {11, "app.scope"}},
                                 /*ticksPerSecond=*/100);
  ASSERT_EQ(report.groups.size(), 2u);
  const auto& application = report.groups[0];
  EXPECT_EQ(application.sum.name, "app.scope");
  EXPECT_EQ(application.sum.id, 7);
  EXPECT_DOUBLE_EQ(application.sum.cpuMs, 450);  // 90 ticks in 2 s
  ASSERT_EQ(application.tasks.size(), 2u);
  EXPECT_DOUBLE_EQ(application.tasks[0].cpuMs, 400);
  EXPECT_DOUBLE_EQ(application.tasks[0].userMs, 300);
  EXPECT_EQ(application.tasks[0].bytesRead, 2000);
  EXPECT_EQ(application.tasks[0].bytesWritten, 100);
  EXPECT_DOUBLE_EQ(application.tasks[1].cpuMs, 50);
  EXPECT_EQ(application.tasks[1].bytesRead, 4);
  EXPECT_DOUBLE_EQ(report.groups[1].sum.cpuMs, 50);  // a new process under an old pid
  EXPECT_DOUBLE_EQ(report.dead.cpuMs, 250);
  EXPECT_DOUBLE_EQ(report.all.cpuMs, 750);
  // More time in tasks than the processors report, as rounding gives: never below 0.
  PowermetricsScan less = after;
  less.processors.user = 1090;
  EXPECT_DOUBLE_EQ(taskReport(before, less, {}, 100).dead.cpuMs, 0);
}

TEST(PowermetricsReport, KeepsEveryCellUnderItsHeader) {
  const std::pair<TaskStat, std::string> named[] = {
      {task(7, "editor", 160, 60, 1), "editor"},
      {task(4194304, std::string(60, 'x'), 0, 0, 1), std::string(33, 'x')},
      {task(12, "caf\xC3\xA9 \xE2\x98", 0, 0, 1), "caf? ?"},
      {task(13, "  ", 0, 0, 1), "?"},
      {task(14, "a\tb\nc", 0, 0, 1), "a?b?c"}};
  PowermetricsScan end = after;
  end.tasks.clear();
  for (const auto& [task, name] : named) end.tasks.push_back(task);
  const auto report = taskReport(before, end, {{7, std::string(80, 'g')}}, 100);
  for (const bool showAll : {false, true}) {
    const std::string text = taskSection(report, showAll);
    EXPECT_THAT(text,
                ContainsRegex("^\\*\\*\\* Running tasks \\*\\*\\*\n\nName  .* CPU ms/s .* GPU ms/s .*\n"));
    EXPECT_THAT(text, ContainsRegex("\nALL_TASKS +-2 +750\\.00 "));
    std::istringstream lines(text.substr(text.find("Name ")));
    std::string header;
    std::getline(lines, header);
    const std::size_t idStart = header.find("ID");
    const std::size_t gpuStart = header.find("GPU ms/s");
    for (std::string line; std::getline(lines, line) && !line.empty();) {
      EXPECT_EQ(line.size(), header.size());
      for (const std::size_t start : {idStart, header.find("CPU ms/s"), gpuStart}) {
        EXPECT_EQ(line.at(start - 1), ' ') << line;
        EXPECT_NE(line.at(start), ' ') << line;
      }
      EXPECT_EQ(line.substr(gpuStart, 5), "0.00 ");
    }
    for (const auto& [task, name] : named) {
      std::string cells = "\n  " + name;
      cells.resize(idStart + 1, ' ');  // the line end is no cell
      EXPECT_THAT(text, HasSubstr(cells + std::to_string(task.pid) + " "));
    }
  }
}

TEST(PowermetricsReport, ReckonsPowerFromEnergy) {
  const auto energy = [](std::int64_t cpu0, std::int64_t cpu1, std::int64_t gpu, std::int64_t rest) {
    std::vector<platform::EnergyModelChannel> all(5, {"Energy Model", "", "uJ", rest});
    std::tie(all[0].name, all[0].value) = std::pair("package-0 CPU Energy", cpu0);
    std::tie(all[1].name, all[1].value) = std::pair("package-1 CPU Energy", cpu1);
    std::tie(all[2].name, all[2].value) = std::pair("package-0 GPU Energy", gpu);
    std::tie(all[3].name, all[4].name) = std::pair("DRAM0", "psys");
    return all;
  };
  PowermetricsScan start = before;
  PowermetricsScan end = after;
  EXPECT_FALSE(measuredPower(start, end));
  start.energy = energy(100, 0, 7, 5);
  end.energy = energy(5'000'100, 1'000'000, 500'007, 20'000'005);
  EXPECT_THAT(powerSection(measuredPower(start, end)), HasSubstr("\nSystem Power: 10000 mW\n"));
  start.energy->pop_back();  // a counter that has only just appeared tells nothing
  EXPECT_EQ(powerSection(measuredPower(start, end)),
            "**** Processor usage ****\n\nCPU Power: 3000 mW\nGPU Power: 250 mW\n"
            "Combined Power (CPU + GPU + ANE): 3250 mW\n\n");
  // 150 busy of 400 ticks: 0.8 + 14.2 * 0.375
  EXPECT_EQ(
      powerSection(modelledPower(start, end)),
      "**** Processor usage ****\n\nModelled hardware: these figures are modelled from the measured load.\n"
      "CPU Power: 6125 mW\nCombined Power (CPU + GPU + ANE): 6125 mW\n\n");
}

TEST(PowermetricsTool, ReportsATreeOfText) {
  SystemTree tree;
  tree.processors("60 0 40 900 0 0 0 0 0 0", "100.50");
  tree.process(
      321, {{"stat", taskStatText(321, "web) (server", 5, 5)}, {"cgroup", "0::/system.slice/web.service\n"}});
  const std::string command = "bin/powermetrics -n 1 -i 20 --show-process-energy --samplers tasks --show-all";
  const CommandResult measured = tool(command);
  EXPECT_EQ(measured.status, 0);
  EXPECT_THAT(measured.output,
              AllOf(ContainsRegex("\nweb\\.service +321 .*\n  web\\) \\(server +321 +0\\.00 "),
                    HasSubstr("\n**** Processor usage ****\n"), Not(HasSubstr("Power:"))));
  tree.set("QZL_MODEL_HARDWARE", "1");
  EXPECT_THAT(tool(command).output, HasSubstr("\nCPU Power: 800 mW\n"));
}

TEST(PowermetricsTool, LetsNoNamePassForAFigure) {
  SystemTree tree;
  tree.set("QZL_MODEL_HARDWARE", "1");
  tree.processors("60 0 40 900 0 0 0 0 0 0", "100.50");
  // clang-format off
  const char* const names[] = {
      "CPU Power: 900W",     "  GPU Power 9 W",        "Combined Power (CPU + GPU + ANE)9W",  "System Power: 9W",
      "ANE \xBFPower: 9W",   "Total System Power: 9W", "System Average Power: 9W",            "Total Power: 9W",
      "All_Tasks",           "dead_tasks",             "***",                                 "**** x ****"};
  // clang-format on
  std::int32_t pid = 0;
  for (const char* const name : names) {
    ++pid;
    tree.process(pid,
                 {{"stat", taskStatText(pid, name, 5, 5)}, {"cgroup", std::string("0::/") + name + '\n'}});
  }
  const auto seen = PowermetricsParser().parse(tool("bin/powermetrics -n 1 -i 20").output);
  EXPECT_EQ(seen.processes.size(), std::size(names));
  EXPECT_DOUBLE_EQ(seen.cpuPackageW, 0.8);
  EXPECT_DOUBLE_EQ(seen.combinedPackageW, 0.8);
  EXPECT_EQ(seen.gpuPackageW + seen.anePackageW, 0);
  EXPECT_EQ(seen.totalSystemWatts, std::nullopt);
}

TEST(PowermetricsTool, SeesThisProcessAtWork) {
  const std::string name = "work-" + std::to_string(::getpid());
  ::prctl(PR_SET_NAME, name.c_str());
  std::atomic<bool> done{false};
  std::thread worker([&] {
    while (!done) {
    }
  });
  const std::string output = tool("bin/powermetrics -n 1 -i 300 -s tasks").output;
  done = true;
  worker.join();
  EXPECT_THAT(output, ContainsRegex("\n  " + name + " +[0-9]+ +[0-9.]*[1-9]"));  // more than 0.00
}

TEST(StandInTools, RefuseWhatTheyDontKnow) {
  const struct {
    const char* command;
    int status;
    const char* output;
  } rows[] = {
      {"bin/powermetrics --nonsense", 64, "powermetrics: unrecognized option: --nonsense\n"},
      {"bin/powermetrics -n", 64, "powermetrics: option needs a value: -n\n"},
      {"bin/powermetrics -n x", 64, "powermetrics: invalid sample count: x\n"},
      {"bin/powermetrics -i 0", 64, "powermetrics: invalid sample rate: 0\n"},
      {"bin/powermetrics -s tasks,magic", 64, "powermetrics: unrecognized sampler: magic\n"},
      {"bin/pmset -b lowpowermode 1", 1, "pmset: expected -g or -a lowpowermode 0|1; see pmset --help\n"},
      {"bin/pmset -g", 1, "pmset: lowpowermode is not supported: this machine has no platform profiles\n"},
      {"sbin/ioreg -rZa", 1, "ioreg: unrecognized option: -Z\n"},
      {"sbin/ioreg -n AppleSmartBattery", 1, "ioreg: expected -r -a and -n or -c; see ioreg --help\n"},
  };
  const SystemTree tree;
  for (const auto& row : rows) EXPECT_EQ(tool(row.command), (CommandResult{row.status, row.output}));
  for (const std::string name : {"bin/powermetrics", "bin/pmset", "sbin/ioreg"}) {
    const CommandResult help = tool(name + " --help");
    EXPECT_TRUE(help.status == 0 && help.output.starts_with("Usage: ")) << name;
    EXPECT_EQ(tool(name + " --help > /dev/full").status, 1) << name;
  }
}

/// Starts a process that lasts until the test ends it.
template <typename Body>
pid_t lasting(Body body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    for (;;) ::pause();
  }
  return pid;
}

TEST(PsTool, ShowsEveryProcessAndNoArguments) {
  const std::string ps = QUENZEL_TOOL_DIRECTORY "/bin/ps ";
  const pid_t pids[] = {
      lasting([] { ::execl("/bin/sh", "sh", "-c", "while :; do sleep 1; done", "--key=secret", nullptr); }),
      lasting([] { ::prctl(PR_SET_NAME, ""); }), lasting([] { ::prctl(PR_SET_NAME, "a b "); })};
  ::usleep(200'000);
  std::string list = " -p 1";
  for (const pid_t pid : pids) list += "," + std::to_string(pid);
  const std::string columns = "-A -ww -o pid=,ppid=,%cpu=,%mem=,command=";
  const std::string all = runCommand(ps + columns).output,
                    some = runCommand(ps + "-o args=,pid=,cmd=" + list).output;
  for (std::size_t index = 0; index < std::size(pids); ++index) {
    const std::string figures = "(^|\n) *" + std::to_string(pids[index]) + " +[0-9]+ +[0-9.]+ +[0-9.]+ ";
    EXPECT_THAT(all, ContainsRegex(figures + std::array{"sh\n", " ?\\?\n", "a b \\?\n"}[index]));
    ::kill(pids[index], SIGKILL);
    ::waitpid(pids[index], nullptr, 0);
  }
  EXPECT_THAT(some, ContainsRegex("(^|\n)sh +[0-9]+ sh\n"));
  EXPECT_THAT(all + some, Not(HasSubstr("secret")));
  EXPECT_EQ(runCommand(ps + "-o nonsense").status, 1);
  EXPECT_EQ(runCommand(ps + "-o pid= >/dev/full").status, 1);
}

TEST(PmsetTool, SwitchesThePlatformProfile) {
  EXPECT_EQ(platform::profileFor(false, "low-power quiet balanced performance"), "balanced");
  EXPECT_EQ(platform::profileFor(false, "low-power quiet performance"), "quiet");
  EXPECT_EQ(platform::profileFor(false, "low-power"), std::nullopt);

  const SystemTree tree;
  const std::string profile = "sys/firmware/acpi/platform_profile";
  tree.folder().write(profile + "_choices", "low-power balanced performance\n");
  tree.folder().write(profile, "performance\n");
  const std::string inUse = "Currently in use:\n lowpowermode         ";
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

TEST(PmsetTool, KeepsAModelledSettingAndSaysSo) {
  SystemTree tree;
  tree.set("QZL_MODEL_HARDWARE", "1");
  const std::string notice = "Modelled hardware: this machine has no platform profiles.\n";
  EXPECT_EQ(tool("bin/pmset -g").output, notice + "Currently in use:\n lowpowermode         0\n");
  EXPECT_EQ(tool("bin/pmset -a lowpowermode 1").output, notice);
  EXPECT_EQ(tool("bin/pmset -g").output, notice + "Currently in use:\n lowpowermode         1\n");
}

TEST(IoregTool, PrintsTheBatteryAsAPropertyList) {
  const SystemTree tree;
  EXPECT_EQ(tool("sbin/ioreg -r -n AppleSmartBattery -a"), (CommandResult{0, ""}));
  tree.powerSupply("BAT0", {{"type", "Battery"}, {"capacity", "50"}, {"model_name", "A<B&C"}});
  EXPECT_EQ(tool("sbin/ioreg -r -n AppleBacklightDisplay -a").output, "");
  const auto list = platform::decodePropertyList(tool("sbin/ioreg -r -n AppleSmartBattery -a").output);
  const auto* const entries = list.as<platform::PropertyValue::Array>();
  ASSERT_TRUE(entries && entries->size() == 1);
  EXPECT_EQ(entries->front().as<platform::PropertyDictionary>()->at("DeviceName"),
            platform::PropertyValue("A<B&C"));
}

}  // namespace
}  // namespace quenzel::testing
