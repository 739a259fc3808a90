#include <map>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Base/Text.hpp"
#include "MetricsCollectors/PowermetricsCollector.hpp"
#include "MetricsCollectors/PowermetricsParser.hpp"
#include "Tests/Support/Command.hpp"
#include "Tests/Support/FakeShell.hpp"
#include "Tests/Support/LoggedLines.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using namespace ::testing;
using testing::FakeShell;
using testing::linesLoggedBy;
using Parser = PowermetricsParser;
using Row = Parser::TaskActivityRow;

//                                              0         1         2         3         4
//                                              0123456789012345678901234567890123456789012345678
const std::string header = "*** Running tasks ***\n\nName                ID     CPU ms/s  User%  GPU ms/s\n";

Parser::RunningTasks tasksOf(const std::string& rows) {
  const std::string text = header + rows;
  return Parser::parseRunningTasks(splitAtLineFeeds(text));
}

TEST(PowermetricsParser, ReadsPowerValues) {
  const std::pair<std::string_view, std::optional<double>> rows[] = {
      {"CPU Power: 1234 mW", 1.234},   {"CPU Power: 0.5 W", 0.5}, {"CPU Power : : 250000uW", 0.25},
      {"CPU Power: 2 kW", 2000.0},     {"CPU Power: 5 W.", 5.0},  {"CPU Power: about 12 of 40 mW", 0.04},
      {"CPU Power: 3 MW", 0.003},  // what the tool calls MW is milliwatts
      {"CPU Power: 7\u00A0mW", 0.007}, {"CPU Power: 5 mWh", {}},  {"CPU Power: 5 W\u00E9", {}},
      {"CPU Power: mW", {}},           {"CPU Power: 5 w", {}},    {"cpu power: 5 W", {}},
      {"Package Power: 5 W", {}},
  };
  for (const auto& [line, watts] : rows) EXPECT_EQ(Parser::powerValue(line, "CPU Power"), watts) << line;
}

TEST(PowermetricsParser, TakesTheLastPackageLineAndTheFirstSystemLine) {
  using Output = PowermetricsParseOutput;
  Output expected{.cpuPackageW = 3, .gpuPackageW = 0.5, .combinedPackageW = 3.5, .totalSystemWatts = 9};
  EXPECT_EQ(Parser().parse("System Power: none\n CPU Power: 2000 mW\nTotal Power: 9 W\nGPU Power: 500 mW\n"
                           "System Average Power: 7 W\nCPU Power: 3 W\nCPU Power: broken\n"
                           "Combined Power (CPU + GPU + ANE): 0 mW\nPackage Power: 50 W\n"),
            expected);  // a combined figure of 0 counts as none
  EXPECT_EQ(Parser().parse("Combined Power (CPU + GPU + ANE): 1.5 W"), Output{.combinedPackageW = 1.5});
  EXPECT_EQ(Parser().parse(""), Output{});
  EXPECT_FALSE(Output{}.hasPackagePower());
  for (double Output::*watts :
       {&Output::cpuPackageW, &Output::gpuPackageW, &Output::anePackageW, &Output::combinedPackageW}) {
    Output one;
    one.*watts = 0.5;
    EXPECT_TRUE(one.hasPackagePower());
  }
}

TEST(PowermetricsParser, KeepsTaskRowsOnly) {
  const auto tasks = tasksOf(
      "com.group           77     90.00     50.00  0.00\n"
      "  first             12     25.03 1.0  50.00  1.50\n"
      "\n"
      "  no number         abc    1.00      1.00   0.00\n"
      "  kernel_task       0      1.00      1.00   0.00\n"
      "  DEAD_tasks        17     1.00      1.00   0.00\n"
      "  *** odd           13     1.00      1.00   0.00\n"
      "                    14     1.00      1.00   0.00\n"
      "  negative          15     -4.00     1.00   -\n"
      "  short             16\n"
      "  a-name-that-runs-into-its-id 12    25.03\n"
      "ALL_TASKS           -2     125.5     50.00  1.50\n");
  EXPECT_THAT(tasks.rows,
              ElementsAre(Row{12, "first", 25.03, 1.5}, Row{15, "negative", 0, 0}, Row{16, "short", 0, 0}));
  EXPECT_EQ(tasks.cpuTotal, 25.03);
  EXPECT_EQ(tasks.gpuTotal, 1.5);
  EXPECT_EQ(tasks.allTasks, 125.5);
  EXPECT_EQ(tasksOf("  ALL_tasks         -2     80.0\n  ALL_TASKS         -2     x\n").allTasks,
            std::nullopt);
}

TEST(PowermetricsParser, KnowsWhereASectionBeginsAndEnds) {
  const std::string one = "  one               5      1.0              0.0\n";
  const std::string two = "  two               6      1.0              0.0\n";
  const std::pair<std::string, std::string> rows[] = {
      {header + "**** Processor usage ****\n" + one, ""},
      {header + "*** not the end ***\n" + one + "**** nor this\n" + two, "one two "},
      {header + one + " **** Processor usage **** \n" + header + two, "one "},  // only the first counts
      {header.substr(0, header.find("GPU")) + "\n" + one, ""},                  // no line is a header
      {"*** Running tasks\n" + header.substr(22) + one, ""}};
  for (const auto& [text, names] : rows) {
    std::string read;
    for (const auto& record : Parser().parse(text).processes) read += record.name + " ";
    EXPECT_EQ(read, names) << text;
  }
}

TEST(PowermetricsParser, CutsColumnsByUserPerceivedCharacters) {
  // Accents, a flag and a family of joined characters count one each, so the columns behind them stay in
  // place.
  EXPECT_THAT(tasksOf("  Caf\u0065\u0301 \U0001F1E9\U0001F1EA            12     25.03     50.00  1.50\n"
                      "  \U0001F469\u200D\U0001F4BB                 13     2.00      50.00  0.50\n"
                      "\u3000wide blank         14     3.00      50.00  0.25\n")
                  .rows,
              ElementsAre(Row{12, "Caf\u0065\u0301 \U0001F1E9\U0001F1EA", 25.03, 1.5},
                          Row{13, "\U0001F469\u200D\U0001F4BB", 2, 0.5}, Row{14, "wide blank", 3, 0.25}));
  const std::string accented = "*** Running tasks ***\n\u00E9\u00E9 Name ID CPU ms/s GPU ms/s\n";
  EXPECT_THAT(Parser::parseRunningTasks(splitAtLineFeeds(accented + "    a    7  1        2\n")).rows,
              ElementsAre(Row{7, "a", 1, 2}))
      << "titles stand behind characters, too";
  const std::tuple<int, std::optional<int>, std::string_view> columns[] = {
      {1, 2, "b"}, {7, 9, ""}, {2, std::nullopt, "c"}, {-2, 1, "e\u0301"}, {-2, -1, ""}, {2, 1, ""}};
  for (const auto& [start, end, text] : columns)
    EXPECT_EQ(Parser::columnValue("e\u0301bc", start, end), text) << start;
}

TEST(PowermetricsParser, SharesPackagePowerOut) {
  const std::string watts = "CPU Power: 4 W\nGPU Power: 3 W\nANE Power: 2 W\n";
  const std::string a = "  a                 1      30.0      0      0\n";
  const std::string b = "  b                 2      10.0      0      ";
  const std::string idle = "  a                 1      0.0       0      0\n";
  const std::string all = "ALL_TASKS           -2     ";
  const auto parsed = [&](const std::string& rows) { return Parser().parse(header + rows + watts); };
  const auto byCPU = parsed(a + b + "0\n");
  EXPECT_TRUE(byCPU.gpuPackageAllocatedByCPUShare());
  EXPECT_THAT(byCPU.processes, ElementsAre(PowermetricsProcessRecord{1, "a", 30, 0, 3, 2.25, 1.5, 6.75},
                                           PowermetricsProcessRecord{2, "b", 10, 0, 1, 0.75, 0.5, 2.25}));
  const auto byGPU = parsed(a + b + "5\n");
  EXPECT_FALSE(byGPU.gpuPackageAllocatedByCPUShare());
  EXPECT_THAT(byGPU.processes,  // the neural engine goes by CPU share even then
              ElementsAre(PowermetricsProcessRecord{1, "a", 30, 0, 3, 0, 1.5, 4.5},
                          PowermetricsProcessRecord{2, "b", 10, 5, 1, 3, 0.5, 4.5}));
  EXPECT_EQ(parsed(idle).processes.at(0).packageW, 0.0);  // nothing to share out by
  EXPECT_EQ(parsed(idle).resolvedCPUAttributionDenominator(), 0.0);
  const auto onTotal = parsed(idle + all + "50.0\n");
  EXPECT_EQ(onTotal.resolvedCPUAttributionDenominator(), 50.0);
  EXPECT_TRUE(onTotal.gpuPackageAllocatedByCPUShare());
  EXPECT_EQ(parsed(all + "-5.0\n").resolvedCPUAttributionDenominator(), 0.0);
}

/// What the collector runs, and as which executable, depends on who runs these tests.
const ToolCommand command = PowermetricsCollector::command(::geteuid() == 0);

TEST(PowermetricsCollector, RunsTheToolAtLowPriorityAndWithoutAPrompt) {
  const ToolCommand root = PowermetricsCollector::command(true), user = PowermetricsCollector::command(false);
  const std::string words =
      "-n 20 /usr/bin/powermetrics -n 1 --show-process-energy --samplers tasks --show-all";
  EXPECT_EQ(fmt::format("{} {}", root.executable, fmt::join(root.arguments, " ")), "/usr/bin/nice " + words);
  EXPECT_EQ(fmt::format("{} {}", user.executable, fmt::join(user.arguments, " ")),
            "/usr/bin/sudo -n /usr/bin/nice " + words);
  // The line for sudoers matches what sudo is given, word for word.
  const std::string allowed = "'(root) NOPASSWD: /usr/bin/nice " + words + "'";
  EXPECT_EQ(testing::runCommand("grep -cF " + allowed + " " QUENZEL_README).output, "1\n");

  FakeShell shell;
  shell.reply(command.executable, ShellResult{0, "CPU Power: 1500 mW\nTotal Power: 4 W\n", "note"});
  EXPECT_THAT(linesLoggedBy([&] { PowermetricsCollector(shell).collectNormalizedSample(); }),
              ElementsAre(fmt::format("[INFO] [Powermetrics] Starting powermetrics fetch: {} {}",
                                      command.executable, fmt::join(command.arguments, " ")),
                          MatchesRegex("\\[INFO\\] \\[Powermetrics\\] powermetrics command completed in "
                                       "0\\.[0-9]{3}s with status=0, stdoutBytes=36, stderrBytes=4"),
                          "[INFO] [Powermetrics] Parsed powermetrics output: processes=0, packageW=1.50, "
                          "totalSystemWatts=4.00"));
  EXPECT_THAT(shell.calls(), ElementsAre(FakeShell::Call{command.executable, command.arguments}));
}

TEST(PowermetricsCollector, JudgesTheAnswer) {
  using Kind = PowermetricsCollectorError::Kind;
  const std::map<Kind, std::string> prefixes = {
      {Kind::commandFailed, "powermetrics command failed: "},
      {Kind::insufficientPrivileges, "powermetrics requires admin privileges: "},
      {Kind::emptyOrUnparseableOutput, "powermetrics returned no usable power data."}};
  std::string manyLines;
  for (int line = 1; line <= 17; ++line) manyLines += fmt::format(" \n {}\r\n", line);
  const std::string noPower = "parse produced no process/package/system power. preview=";
  // The answer, the kind of the error, and how the log introduces what the error or the preview says.
  const std::tuple<FakeShell::Reply, Kind, std::string, std::string> rows[] = {
      {ShellRunnerError::timedOut("x \x1B[2J\ny", 15), Kind::commandFailed,
       "execution failed: ", "Command timed out after 15.0s: x ?[2J?y"},
      {ShellResult{1, "", "\n\nsudo: A Password is required\n"}, Kind::insufficientPrivileges,
       "non-zero status=1, firstStderrLine=", "sudo: A Password is required"},
      {ShellResult{2, "", " u\x1B[31m\x07 is\nNOT in the sudoers file"}, Kind::insufficientPrivileges,
       "non-zero status=2, firstStderrLine=", " u?[31m? is"},
      {ShellResult{64, "", ""}, Kind::commandFailed, "non-zero status=64, firstStderrLine=", "<empty>"},
      {ShellResult{0, "System Power: 0 W\x1B\n", "password"}, Kind::emptyOrUnparseableOutput, noPower,
       "System Power: 0 W?"},
      {ShellResult{0, manyLines, ""}, Kind::emptyOrUnparseableOutput, noPower,
       "1 | 2 | 3 | 4 | 5 | 6 | 7 | 8 | 9 | 10 | 11 | 12 | 13 | 14 | 15 | 16"}};
  for (const auto& [reply, kind, introduction, said] : rows) {
    FakeShell shell;
    shell.reply(command.executable, reply);
    auto error = PowermetricsCollectorError::commandFailed("nothing was thrown");
    const auto collect = [&] { PowermetricsCollector(shell).collectNormalizedSample(); };
    const auto lines = linesLoggedBy([&] { error = thrownBy<PowermetricsCollectorError>(collect); });
    const std::string message = kind == Kind::emptyOrUnparseableOutput ? "" : said;
    EXPECT_EQ(error.kind(), kind) << said;
    EXPECT_EQ(error.message(), message);
    EXPECT_EQ(error.what(), prefixes.at(kind) + message);
    EXPECT_EQ(lines.back(), "[ERROR] [Powermetrics] powermetrics " + introduction + said);
  }
}

TEST(PowermetricsCollector, DumpsTheRawExchangeOnDemand) {
  const testing::TemporaryDirectory folder;
  testing::ScopedEnvironment environment{
      {{"QZL_PM_RAW_DUMP", "true"}, {"QZL_PM_RAW_DUMP_PATH", folder / "dump.log"}}};
  FakeShell shell;
  shell.reply(command.executable, ShellResult{0, "CPU Power: 1 W\n", "note"});
  const PowermetricsCollector collector(shell);
  collector.collectNormalizedSample();
  EXPECT_EQ(folder.read("dump.log"), "") << "only \"1\" switches dumping on";
  environment.set("QZL_PM_RAW_DUMP", "1");
  collector.collectNormalizedSample();
  collector.collectNormalizedSample();
  const std::string record =
      "----- [0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z -----\ncommand: " + command.executable +
      " [^\n]*--show-all\nstatus: 0\nstderr-bytes: 4\nstdout-bytes: 15\nstdout:\nCPU "
      "Power: 1 W\n\nstderr:\nnote\n";
  EXPECT_THAT(folder.read("dump.log"), MatchesRegex(record + record));
  environment.set("QZL_PM_RAW_DUMP_PATH", folder / "none/dump\n.log");
  EXPECT_THAT(linesLoggedBy([&] { collector.collectNormalizedSample(); }),
              Contains("[WARN] [Powermetrics] Failed to write raw dump file: " + (folder / "none/dump?.log") +
                       ": No such file or directory"));
}

}  // namespace
}  // namespace quenzel
