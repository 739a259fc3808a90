#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "MetricsCollectors/PowermetricsCollector.hpp"
#include "MetricsCollectors/PowermetricsParser.hpp"
#include "SharedModels/Runtime/Text.hpp"
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
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;
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
  const PowermetricsParseOutput output = Parser().parse(
      "System Power: none\n CPU Power: 2000 mW\nTotal Power: 9 W\nGPU Power: 500 mW\nSystem Average Power: 7 "
      "W\n"
      "CPU Power: 3 W\nCPU Power: broken\nCombined Power (CPU + GPU + ANE): 0 mW\nPackage Power: 50 W\n");
  EXPECT_EQ(output.cpuPackageW, 3.0);
  EXPECT_EQ(output.gpuPackageW, 0.5);
  EXPECT_EQ(output.combinedPackageW, 3.5);  // a combined figure of 0 counts as none
  EXPECT_EQ(output.totalSystemWatts, 9.0);
  EXPECT_TRUE(output.hasPackagePower());
  EXPECT_EQ(Parser().parse("Combined Power (CPU + GPU + ANE): 1.5 W").combinedPackageW, 1.5);
  const PowermetricsParseOutput nothing = Parser().parse("");
  EXPECT_EQ(nothing, PowermetricsParseOutput{});
  EXPECT_FALSE(nothing.hasPackagePower());
  using Output = PowermetricsParseOutput;
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
  EXPECT_THAT(tasksOf("**** Processor usage ****\n" + one).rows, IsEmpty());
  const std::string another = "  another           6      1.0              0.0\n";
  EXPECT_THAT(tasksOf("*** not the end ***\n" + one + "**** nor this\n" + another).rows,
              ElementsAre(Row{5, "one", 1, 0}, Row{6, "another", 1, 0}));
  EXPECT_THAT(tasksOf(one + " **** Processor usage **** \n" + header + another).rows,
              ElementsAre(Row{5, "one", 1, 0}))
      << "only the first section counts";
  const std::string withoutGPU = header.substr(0, header.find("GPU")) + "\n";  // then no line is a header
  EXPECT_THAT(Parser().parse(withoutGPU + one).processes, IsEmpty());
  EXPECT_THAT(Parser().parse("*** Running tasks\n" + header.substr(22) + one).processes, IsEmpty());
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
      {1, 2, "b"}, {2, 2, ""}, {7, 9, ""}, {2, std::nullopt, "c"}, {-2, 1, "a"}, {-2, -1, ""}, {2, 1, ""}};
  for (const auto& [start, end, text] : columns) EXPECT_EQ(Parser::columnValue("abc", start, end), text);
  const std::pair<int, std::size_t> indices[] = {{-1, 0}, {0, 0}, {1, 3}, {2, 4}, {9, 4}};
  for (const auto& [offset, index] : indices) EXPECT_EQ(Parser::boundedIndex("e\u0301x", offset), index);
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
  const auto onTotal = parsed(idle + all + "50.0\n");
  EXPECT_EQ(onTotal.resolvedCPUAttributionDenominator(), 50.0);
  EXPECT_TRUE(onTotal.gpuPackageAllocatedByCPUShare());
  EXPECT_EQ(parsed(all + "-5.0\n").resolvedCPUAttributionDenominator(), 0.0);
}

/// What the collector runs, and as which executable, depends on who runs these tests.
ToolCommand expectedCommand() { return PowermetricsCollector::command(::geteuid() == 0); }

TEST(PowermetricsCollector, RunsTheToolAtLowPriorityAndWithoutAPrompt) {
  const std::vector<std::string> root = {"-n",         "20",    "/usr/bin/powermetrics",
                                         "-n",         "1",     "--show-process-energy",
                                         "--samplers", "tasks", "--show-all"};
  EXPECT_EQ(PowermetricsCollector::command(true), (ToolCommand{"/usr/bin/nice", root}));
  std::vector<std::string> user = root;
  user.insert(user.begin(), {"-n", "/usr/bin/nice"});
  EXPECT_EQ(PowermetricsCollector::command(false), (ToolCommand{"/usr/bin/sudo", user}));
  std::string allowed = "(root) NOPASSWD:";  // the line for sudoers matches what sudo is given, word for word
  for (auto word = user.begin() + 1; word != user.end(); ++word) allowed += " " + *word;
  EXPECT_EQ(testing::runCommand("grep -cF '" + allowed + "' " QUENZEL_README).output, "1\n");

  FakeShell shell;
  shell.output(expectedCommand().executable, "System Average Power: 4 W\n");
  EXPECT_EQ(PowermetricsCollector(shell).collectNormalizedSample().totalSystemWatts, 4.0);
  EXPECT_THAT(shell.calls(),
              ElementsAre(FakeShell::Call{expectedCommand().executable, expectedCommand().arguments}));
}

TEST(PowermetricsCollector, JudgesTheAnswerAndLogsWhatItDid) {
  using Kind = PowermetricsCollectorError::Kind;
  const std::string failed = "powermetrics command failed: ";
  const std::string privileges = "powermetrics requires admin privileges: ";
  const std::string nothing = "powermetrics returned no usable power data.";
  const std::string error = "[ERROR] [Powermetrics] ";
  const auto nonZero = [&](int status, const std::string& line) {
    return fmt::format("{}powermetrics non-zero status={}, firstStderrLine={}", error, status, line);
  };
  const auto unparseable = [&](const std::string& preview) {
    return error + "powermetrics parse produced no process/package/system power. preview=" + preview;
  };
  std::string manyLines;
  for (int line = 1; line <= 17; ++line) manyLines += fmt::format(" \n {}\r\n", line);
  struct AnswerRow {
    FakeShell::Reply reply;
    Kind kind;
    std::string prefix;  // of the description
    std::string message;
    std::string lastLine;
  };
  const AnswerRow rows[] = {
      {ShellRunnerError::timedOut("x \x1B[2J\ny", 15), Kind::commandFailed, failed,
       "Command timed out after 15.0s: x ?[2J?y",
       error + "powermetrics execution failed: Command timed out after 15.0s: x ?[2J?y"},
      {ShellResult{1, "", "\n\nsudo: A Password is required\n"}, Kind::insufficientPrivileges, privileges,
       "sudo: A Password is required", nonZero(1, "sudo: A Password is required")},
      {ShellResult{1, "", " u is\nNOT in the sudoers file"}, Kind::insufficientPrivileges, privileges,
       " u is", nonZero(1, " u is")},
      {ShellResult{2, "", "\n\nfoo\x1B[31m\x07\nbar"}, Kind::commandFailed, failed, "foo?[31m?",
       nonZero(2, "foo?[31m?")},
      {ShellResult{64, "", ""}, Kind::commandFailed, failed, "<empty>", nonZero(64, "<empty>")},
      {ShellResult{0, " nothing of\x1B use \n\n", "password"}, Kind::emptyOrUnparseableOutput, nothing, "",
       unparseable("nothing of? use")},
      {ShellResult{0, "System Power: 0 W\n", ""}, Kind::emptyOrUnparseableOutput, nothing, "",
       unparseable("System Power: 0 W")},
      {ShellResult{0, manyLines, ""}, Kind::emptyOrUnparseableOutput, nothing, "",
       unparseable("1 | 2 | 3 | 4 | 5 | 6 | 7 | 8 | 9 | 10 | 11 | 12 | 13 | 14 | 15 | 16")},
  };
  for (const AnswerRow& row : rows) {
    FakeShell shell;
    shell.reply(expectedCommand().executable, row.reply);
    std::optional<PowermetricsCollectorError> thrown;
    const auto lines = linesLoggedBy([&] {
      thrown = thrownBy<PowermetricsCollectorError>(
          [&] { PowermetricsCollector(shell).collectNormalizedSample(); });
    });
    EXPECT_EQ(thrown->kind(), row.kind) << row.message;
    EXPECT_EQ(thrown->message(), row.message);
    EXPECT_EQ(thrown->what(), row.prefix + row.message);
    EXPECT_THAT(lines, Contains(row.lastLine)) << row.message;
    EXPECT_EQ(lines.empty() ? "" : lines.back(), row.lastLine) << "one line each";
  }
  FakeShell shell;
  shell.reply(expectedCommand().executable, ShellResult{0, "CPU Power: 1500 mW\nTotal Power: 4 W\n", "note"});
  const ToolCommand command = expectedCommand();
  EXPECT_THAT(linesLoggedBy([&] { PowermetricsCollector(shell).collectNormalizedSample(); }),
              ElementsAre(fmt::format("[INFO] [Powermetrics] Starting powermetrics fetch: {} {}",
                                      command.executable, fmt::join(command.arguments, " ")),
                          MatchesRegex("\\[INFO\\] \\[Powermetrics\\] powermetrics command completed in "
                                       "0\\.[0-9]{3}s with status=0, stdoutBytes=36, stderrBytes=4"),
                          "[INFO] [Powermetrics] Parsed powermetrics output: processes=0, packageW=1.50, "
                          "totalSystemWatts=4.00"));
}

TEST(PowermetricsCollector, DumpsTheRawExchangeOnDemand) {
  const TemporaryDirectory folder;
  ScopedEnvironment environment{{{"QZL_PM_RAW_DUMP", "true"}, {"QZL_PM_RAW_DUMP_PATH", folder / "dump.log"}}};
  FakeShell shell;
  shell.reply(expectedCommand().executable, ShellResult{0, "CPU Power: 1 W\n", "note"});
  const PowermetricsCollector collector(shell);
  collector.collectNormalizedSample();
  EXPECT_EQ(folder.read("dump.log"), "") << "only \"1\" switches dumping on";
  environment.set("QZL_PM_RAW_DUMP", "1");
  collector.collectNormalizedSample();
  collector.collectNormalizedSample();
  const std::string record = "----- [0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z -----\ncommand: " +
                             expectedCommand().executable +
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
