#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/PlatformProfile.hpp"
#include "Platform/Linux/PowermetricsReport.hpp"
#include "Platform/PropertyList.hpp"
#include "Tests/Support/SystemTree.hpp"

namespace quenzel::testing {
namespace {

using platform::PowermetricsScan;
using platform::TaskStat;

struct ToolResult {
  int status = -1;
  std::string output;  // both streams
};

/// Runs a stand-in as its users do.
ToolResult tool(const std::string& command) {
  ToolResult result;
  FILE* const pipe = ::popen((QUENZEL_TOOL_DIRECTORY "/usr/" + command + " 2>&1").c_str(), "re");
  if (!pipe) return result;
  for (int character; (character = std::fgetc(pipe)) != EOF;) result.output += static_cast<char>(character);
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> all;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) all.push_back(line);
  return all;
}

/// The words of the line that begins with these words.
std::vector<std::string> wordsAfter(const std::string& text, const std::string& start) {
  std::vector<std::string> words;
  for (const std::string& line : lines(text)) {
    if (!line.starts_with(start)) continue;
    std::istringstream stream(line.substr(start.size()));
    for (std::string word; stream >> word;) words.push_back(word);
    break;
  }
  return words;
}

TaskStat task(std::int32_t pid, std::string name, std::uint64_t user, std::uint64_t system,
              std::uint64_t start) {
  TaskStat stat;
  stat.pid = pid;
  stat.name = std::move(name);
  stat.userTicks = user;
  stat.systemTicks = system;
  stat.startTicks = start;
  return stat;
}

platform::ProcessorTimes processors(std::uint64_t user, std::uint64_t idle) {
  platform::ProcessorTimes times;
  times.user = user;
  times.idle = idle;
  return times;
}

/// Two seconds at 100 ticks a second, in which the processors gave 150 ticks to tasks.
const PowermetricsScan before{
    .seconds = 10,
    .processors = processors(1000, 5000),
    .tasks = {task(7, "editor", 100, 40, 1), task(8, "old pid", 900, 0, 2), task(9, "ended", 70, 0, 3)},
    .storage = {{7, {1000, 50}}},
    .energy = std::nullopt};
const PowermetricsScan after{.seconds = 12,
                             .processors = processors(1150, 5250),
                             .tasks = {task(7, "editor", 160, 60, 1), task(8, "new pid", 10, 0, 80),
                                       task(11, "just started", 4, 6, 90)},
                             .storage = {{7, {5000, 250}}, {11, {8, 2}}},
                             .energy = std::nullopt};

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
  less.processors = processors(1090, 5250);
  EXPECT_DOUBLE_EQ(taskReport(before, less, {}, 100).dead.cpuMs, 0);
}

TEST(PowermetricsReport, KeepsEveryCellUnderItsHeader) {
  PowermetricsScan named = after;
  named.tasks = {task(7, "editor", 160, 60, 1), task(4194304, std::string(60, 'x'), 0, 0, 1),
                 task(12, "caf\xC3\xA9 \xE2\x98", 0, 0, 1), task(13, "  ", 0, 0, 1),
                 task(14, "a\tb\nc", 0, 0, 1)};
  for (const bool showAll : {false, true}) {
    const std::string text =
        taskSection(taskReport(before, named, {{7, std::string(80, 'g')}}, 100), showAll);
    const std::vector<std::string> all = lines(text);
    ASSERT_EQ(all.at(0), "*** Running tasks ***");
    const std::string& header = all.at(2);
    const std::size_t idStart = header.find("ID");
    const std::size_t cpuStart = header.find("CPU ms/s");
    const std::size_t gpuStart = header.find("GPU ms/s");
    ASSERT_EQ(header.find("Name"), 0u);
    ASSERT_LT(cpuStart, gpuStart);
    std::map<std::string, std::string> names;  // by id
    for (std::size_t index = 3; index < all.size() && !all[index].empty(); ++index) {
      const std::string& line = all[index];
      EXPECT_EQ(line.size(), header.size());
      for (const std::size_t start : {idStart, cpuStart, gpuStart}) {
        EXPECT_EQ(line.at(start - 1), ' ') << line;
        EXPECT_NE(line.at(start), ' ') << line;
      }
      const std::string name = line.substr(0, idStart);
      if (name.starts_with("  ")) {
        names[line.substr(idStart, line.find(' ', idStart) - idStart)] =
            name.substr(2, name.find_last_not_of(' ') - 1);
      }
      EXPECT_EQ(line.substr(gpuStart, 5), "0.00 ");
    }
    const std::map<std::string, std::string> expected = {
        {"7", "editor"}, {"4194304", std::string(33, 'x')}, {"12", "caf? ?"}, {"13", "?"}, {"14", "a?b?c"}};
    EXPECT_EQ(names, expected);
    EXPECT_EQ(wordsAfter(text, "ALL_TASKS").at(1), "750.00");
  }
}

TEST(PowermetricsReport, ReckonsPowerFromEnergy) {
  const auto channel = [](const char* name, std::int64_t microjoules) {
    return platform::EnergyModelChannel{"Energy Model", name, "uJ", microjoules};
  };
  PowermetricsScan start = before;
  PowermetricsScan end = after;
  EXPECT_FALSE(measuredPower(start, end));
  EXPECT_EQ(platform::powerSection(std::nullopt).find("Power:"), std::string::npos);

  start.energy = {{channel("package-0 CPU Energy", 100), channel("package-1 CPU Energy", 0),
                   channel("package-0 GPU Energy", 7), channel("DRAM0", 0)}};
  end.energy = {{channel("package-0 CPU Energy", 5'000'100), channel("package-1 CPU Energy", 1'000'000),
                 channel("package-0 GPU Energy", 500'007), channel("DRAM0", 9'000'000), channel("psys", 5)}};
  EXPECT_EQ(platform::powerSection(measuredPower(start, end)),
            "**** Processor usage ****\n\nCPU Power: 3000 mW\nGPU Power: 250 mW\nANE Power: 0 mW\n"
            "Combined Power (CPU + GPU + ANE): 3250 mW\n\n");
  start.energy->push_back(channel("psys", 5));
  end.energy->back().value = 20'000'005;
  EXPECT_NE(platform::powerSection(measuredPower(start, end)).find("\nSystem Power: 10000 mW\n"),
            std::string::npos);

  // 150 busy of 400 ticks: 0.8 + 14.2 * 0.375
  const std::string modelled = platform::powerSection(modelledPower(start, end));
  EXPECT_NE(modelled.find("\nCPU Power: 6125 mW\n"), std::string::npos) << modelled;
  EXPECT_NE(modelled.find("modelled"), std::string::npos);
}

TEST(PowermetricsTool, ReportsATreeOfText) {
  SystemTree tree;
  tree.processors("60 0 40 900 0 0 0 0 0 0", "100.50");
  tree.process(
      321, {{"stat", taskStatText(321, "web) (server", 5, 5)}, {"cgroup", "0::/system.slice/web.service\n"}});
  const std::string options = "bin/powermetrics -n 1 -i 20 --show-process-energy --samplers tasks --show-all";
  const ToolResult measured = tool(options);
  EXPECT_EQ(measured.status, 0);
  EXPECT_EQ(wordsAfter(measured.output, "web.service").at(0), "321");
  EXPECT_EQ(wordsAfter(measured.output, "  web) (server").at(1), "0.00");
  EXPECT_NE(measured.output.find("\n**** Processor usage ****\n"), std::string::npos);
  EXPECT_EQ(measured.output.find("Power:"), std::string::npos);
  tree.set("QZL_MODEL_HARDWARE", "1");
  EXPECT_EQ(wordsAfter(tool(options).output, "CPU Power:"), (std::vector<std::string>{"800", "mW"}));
}

TEST(PowermetricsTool, SeesThisProcessAtWork) {
  std::atomic<bool> done{false};
  std::thread worker([&] {
    while (!done) {
    }
  });
  const ToolResult result = tool("bin/powermetrics -n 1 -i 300 -s tasks");
  done = true;
  worker.join();
  const std::string pid = std::to_string(::getpid());
  double milliseconds = -1;
  for (const std::string& line : lines(result.output)) {
    std::istringstream stream(line.substr(std::min<std::size_t>(36, line.size())));
    std::string id;
    double cpu = 0;
    if (line.starts_with("  ") && stream >> id >> cpu && id == pid) milliseconds = cpu;
  }
  EXPECT_GT(milliseconds, 0) << result.output;
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
      {"sbin/ioreg -Z", 1, "ioreg: unrecognized option: -Z\n"},
      {"sbin/ioreg -n AppleSmartBattery", 1, "ioreg: expected -r -a and -n or -c; see ioreg --help\n"},
  };
  const SystemTree tree;
  for (const auto& row : rows) {
    const ToolResult result = tool(row.command);
    EXPECT_EQ(result.status, row.status) << row.command;
    EXPECT_EQ(result.output, row.output) << row.command;
  }
  for (const char* const name : {"bin/powermetrics", "bin/pmset", "sbin/ioreg"}) {
    const ToolResult result = tool(std::string(name) + " --help");
    EXPECT_EQ(result.status, 0) << name;
    EXPECT_TRUE(result.output.starts_with("Usage: ")) << name;
    EXPECT_EQ(tool(std::string(name) + " --help > /dev/full").status, 1) << name;
  }
}

TEST(PmsetTool, SwitchesThePlatformProfile) {
  const struct {
    bool lowPower;
    const char* choices;
    std::optional<std::string> profile;
  } rows[] = {{true, "low-power balanced performance", "low-power"},
              {false, "low-power quiet balanced performance", "balanced"},
              {false, "low-power quiet performance", "quiet"},
              {true, "quiet balanced", std::nullopt},
              {false, "low-power", std::nullopt}};
  for (const auto& row : rows)
    EXPECT_EQ(platform::profileFor(row.lowPower, row.choices), row.profile) << row.choices;

  const SystemTree tree;
  const char* const profile = "sys/firmware/acpi/platform_profile";
  tree.folder().write(profile, "performance\n");
  tree.folder().write(std::string(profile) + "_choices", "low-power balanced performance\n");
  EXPECT_EQ(tool("bin/pmset -g").output, "Currently in use:\n lowpowermode         0\n");
  EXPECT_EQ(tool("bin/pmset -a lowpowermode 0").status, 0);
  EXPECT_EQ(tree.folder().read(profile), "performance\n");  // off already
  EXPECT_EQ(tool("bin/pmset -a lowpowermode 1").status, 0);
  EXPECT_EQ(tree.folder().read(profile), "low-power");
  EXPECT_EQ(tool("bin/pmset -g").output, "Currently in use:\n lowpowermode         1\n");
  EXPECT_EQ(tool("bin/pmset -a lowpowermode 0").status, 0);
  EXPECT_EQ(tree.folder().read(profile), "balanced");
  tree.folder().write(std::string(profile) + "_choices", "balanced performance\n");
  const ToolResult refused = tool("bin/pmset -a lowpowermode 1");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "pmset: this machine offers no low-power platform profile\n");
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
  SystemTree tree;
  const ToolResult none = tool("sbin/ioreg -r -n AppleSmartBattery -a");
  EXPECT_EQ(none.status, 0);
  EXPECT_EQ(none.output, "");
  tree.powerSupply("BAT0", {{"type", "Battery"},
                            {"status", "Discharging"},
                            {"voltage_now", "11000000"},
                            {"current_now", "2000000"},
                            {"model_name", "A<B&C"}});
  EXPECT_EQ(tool("sbin/ioreg -r -n AppleBacklightDisplay -a").output, "");
  const auto list = platform::decodePropertyList(tool("sbin/ioreg -r -n AppleSmartBattery -a").output);
  const auto* const entries = list.as<platform::PropertyValue::Array>();
  ASSERT_TRUE(entries && entries->size() == 1);
  const auto* const battery = entries->front().as<platform::PropertyDictionary>();
  ASSERT_TRUE(battery);
  EXPECT_EQ(battery->at("Amperage"), platform::PropertyValue(std::int64_t{-2000}));
  EXPECT_EQ(battery->at("DeviceName"), platform::PropertyValue("A<B&C"));
}

}  // namespace
}  // namespace quenzel::testing
