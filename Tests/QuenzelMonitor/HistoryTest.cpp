#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "QuenzelMonitor/Views/HistoryReport.hpp"
#include "QuenzelMonitor/Views/TerminalChart.hpp"
#include "SharedModels/Snapshot/ModelledFigures.hpp"
#include "Tests/QuenzelMonitor/RunQuenzel.hpp"
#include "Tests/Support/ScopedTimeZone.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using namespace ::testing;
using namespace testing;

const std::string snapshotLine =
    R"({"timestamp":700000000.25,"totalDischargeW":10,"processes":[{"pid":7,"name":"/A.app/a","displayName":"A",)"
    R"("canonicalName":"A","processGroupKey":"app:/a.app","drainW":2,"energyShare":0.5,"sourceFlags":["x"]}],)"
    R"("hidden":[],"components":{},"unattributedW":8})";

std::string lineAt(double timestamp, const char* name = "A") {
  nlohmann::json snapshot = nlohmann::json::parse(snapshotLine);
  snapshot["timestamp"] = timestamp;
  snapshot["processes"][0]["displayName"] = name;
  return snapshot.dump();
}

class HistoryCommand : public ::testing::Test {
 protected:
  Outcome run(const std::string& command, const std::string& input = "") {
    return testing::runQuenzel(command + " --database " + database, input);
  }

  testing::TemporaryDirectory folder;
  std::string database = folder / "history.sqlite";
};

TEST_F(HistoryCommand, ImportsLineByLineAndExportsTheSame) {
  const std::string later = lineAt(700000060);
  const Outcome import = run("history import", snapshotLine + "\n\n" + lineAt(700000000.5) + "\n{\n" +
                                                   lineAt(700000030, " ") + "\n" + later);
  EXPECT_EQ(import.status, 1);
  EXPECT_EQ(import.out,
            "inserted\nreplacedNearDuplicate\n"
            "error: JSON document: parse error at line 1, column 2: syntax error while parsing object key - "
            "unexpected end of input; expected string literal\n"
            "error: Missing display_name for published process row: /A.app/a\ninserted\n");
  const Outcome exported = run("history export");
  database = folder / "other.sqlite";
  EXPECT_EQ(run("history import -", exported.out).out, "inserted\ninserted\n");
  EXPECT_EQ(run("history export").out, exported.out);
  const auto first = nlohmann::json::parse(exported.out.substr(0, exported.out.find('\n')));
  nlohmann::json kept = nlohmann::json::parse(lineAt(700000000.5));
  kept["components"] = first["components"];
  EXPECT_EQ(first, kept);
  kept["processes"][0].update({{"name", "a\tb\nc\x1b[31m"}, {"displayName", " "}});
  EXPECT_EQ(run("history import", kept.dump()).out,
            "error: Missing display_name for published process row: a\tb?c?[31m\n");
}

TEST_F(HistoryCommand, AnswersWithJSON) {
  run("history import", lineAt(700000000) + "\n" + lineAt(700000036) + "\n" + lineAt(700000072));
  const double start = 700000000 + 978307200.;
  EXPECT_EQ(run("history latest --limit 2").json()[0].at("timestamp"), 700000036);
  EXPECT_EQ(run("history show 3").json().at("processes")[0].at("canonicalName"), "A");
  EXPECT_EQ(run("history window --seconds 40 --max-rows 9 --anchor 1678307240").json().size(), 2u);
  EXPECT_NEAR(run("history energy --limit 2").json().at("totalWh"), 0.1, 1e-9);
  const nlohmann::json summary = run("history summary --from " + std::to_string(start) + " --to 2e9").json();
  EXPECT_NEAR(summary.at("process_wh"), 0.04, 1e-9);
  EXPECT_EQ(summary.size(), 14u);
  const nlohmann::json details = run("history details --seconds 3600 --max-series 1").json();
  EXPECT_EQ(details.at("processes")[0].at("groupKey"), "app:/a.app");
  EXPECT_EQ(details.at("appSeries")[0].at("watts").size(), 3u);
  EXPECT_EQ(run("history purge --older-than 1678307236").json(), nlohmann::json({{"deleted", 1}}));

  for (const double seconds : {108., 144., 180.}) {  // more than a sum can hold
    nlohmann::json huge = nlohmann::json::parse(lineAt(700000000 + seconds));
    huge["totalDischargeW"] = huge["components"]["cpuW"] = 1.7e308;
    run("history import", huge.dump());
  }
  constexpr double largest = std::numeric_limits<double>::max();
  EXPECT_EQ(run("history energy").json().at("totalWh"), largest);
  EXPECT_EQ(run("history summary --from 0 --to 1e12").json().at("cpu_wh"), largest);
}

TEST_F(HistoryCommand, FollowsAnEstimate) {
  const std::string estimate =
      R"({"estimatedAt":5,"horizonSeconds":60,"estimateSource":"s","onBatteryPower":true,)"
      R"("startingBatteryLevelPercent":50,"estimatedPowerW":9})";
  EXPECT_EQ(run("estimates add", estimate).json(), nlohmann::json({{"id", 1}}));
  EXPECT_EQ(run("estimates pending --limit 5").json()[0].at("estimatedPowerW"), 9);
  const std::string evaluation = R"({"status":"evaluated","evaluatedAt":70,"powerErrorW":-1})";
  const Outcome evaluated = run("estimates evaluate 1", evaluation);
  EXPECT_EQ(std::tie(evaluated.status, evaluated.out, evaluated.err), std::tuple(0, "", ""));
  EXPECT_EQ(run("estimates pending").json(), nlohmann::json::array());
  EXPECT_EQ(run("estimates list").json()[0].at("powerErrorW"), -1);
  EXPECT_EQ(run("estimates evaluate 2", evaluation).err, "quenzel: " + database + ": no estimate 2\n");
}

TEST_F(HistoryCommand, RefusesInOneLine) {
  const std::string there = "quenzel: " + database + ": ";
  const std::tuple<const char*, int, std::string>
      missing[] = {{"history latest", 1, there + "unable to open database file\n"},
                   {"history purge --older-than 5", 1, there + "no such database\n"},
                   {"history import /nowhere", 1,
                    "quenzel: can't read /nowhere: No such file or directory\n"},
                   {"estimates add", 1, "quenzel: JSON document: parse error at line 1"}},
      refused[] = {
          {"history show 9", 1, there + "no snapshot 9\n"},
          {"history latest --limit 0", 2, "quenzel: --limit: \"0\" is not a whole number of at least 1"},
          {"history summary --from 1", 2, "quenzel: --to is required"},
          {"estimates evaluate", 2, "quenzel: ID is required"}};
  const auto check = [&](const char* command, int status, const std::string& message) {
    const Outcome outcome = run(command);
    EXPECT_EQ(std::tuple(outcome.status, outcome.err.substr(0, message.size())), std::tuple(status, message));
  };
  for (const auto& row : missing) std::apply(check, row);
  EXPECT_FALSE(std::filesystem::exists(database));
  run("history import", snapshotLine);
  for (const auto& row : refused) std::apply(check, row);
}

constexpr double base = 1'700'000'000;

class HistoryReport : public ::testing::Test {
 protected:
  void add(double seconds, std::vector<std::pair<const char*, double>> watts,
           std::optional<double> level = {}, const char* flag = "powermetrics") {
    DrainSnapshot snapshot = makeSnapshot(base + seconds, 10);
    std::int64_t pid = 100;
    for (const auto& [name, drainW] : watts) {
      ProcessDrain process = makeProcessDrain(++pid, name, drainW, {flag});
      process.displayName = process.canonicalName = name;
      process.processGroupKey = std::string("name:") + std::to_string(pid);
      snapshot.processes.push_back(process);
    }
    snapshot.powerContext = PowerUsageContext{true, {}};  // the level is the battery reading's
    if (level) snapshot.batteryStatus.emplace().levelPercent = *level;
    store.insert(snapshot);
  }
  HistoryView view(double nowSeconds) {
    return readHistoryView(store, {"1h", 3600, 160}, PointInTime::fromSecondsSince1970(base + nowSeconds));
  }

  testing::TemporaryDirectory folder;
  SQLiteSnapshotStore store{folder / "history.sqlite", SQLiteSnapshotStore::Mode::readWriteCreate};
};

TEST_F(HistoryReport, FoldsWhatBearsOneNameAndLosesNoEnergy) {
  const char* const longName = "日本語のとても長いアプリケーションの名前です";
  for (const double seconds : {0., 36., 72.})
    add(seconds, {{"App", 2}, {"app", 1}, {longName, 4}, {"Z", 0.5}, {"z", 0.25}}, 80 - seconds / 36);
  add(108, {{"App", 2}, {"app", 1}}, 77);
  const HistoryView seen = view(200);
  const std::string text = historyReport(seen, {.width = 80, .isUnicode = true});
  EXPECT_THAT(
      text,
      AllOf(HasSubstr("Energy     0.300 Wh, 10.00 W on average\nOn battery 0.300 Wh\nQuenzel    0.000 Wh, "
                      "0.0 % of it\n"
                      "Went to    processes 0.209 Wh, display and USB 0.000 Wh, unattributed 0.000 Wh\n"),
            HasSubstr("draining at 100.0 % an hour"),
            HasSubstr("     0.0900   30.0%      3.000      3.000  2          App\n"),
            HasSubstr("     0.0188    6.2%      0.625      0.000  -          Z\n"),
            HasSubstr("     0.1000   33.3%      3.333      0.000  -          日本語のとても長いアプ"),
            Not(HasSubstr("modelled")), Not(HasSubstr("Only")), Not(HasSubstr("future"))));
  EXPECT_THAT(historyReport(seen, {.width = 80, .isUnicode = false}), HasSubstr("-          ??????????"));
  EXPECT_EQ(encodeHistoryView(seen).at("applications")[1].at("name"), "App");
}

TEST_F(HistoryReport, SaysWhatItsFiguresAreWorth) {
  EXPECT_THAT(historyReport(view(0), {}), StartsWith("The last 1h has no snapshots.\n"));
  const testing::ScopedTimeZone nepal("<+0545>-05:45");
  add(0, {{"a", 1}}, 50);
  add(1800, {{"a", 1}}, 50, modelledSourceFlag.data());
  add(1840, {{"a", 1}}, 50);
  add(1e8, {{"a", 1}}, 50);  // recorded while the clock was ahead
  EXPECT_THAT(historyReport(view(1850), {}),
              AllOf(StartsWith("The last 1h up to 2023-11-15 04:29:10 +0545: 3 snapshots over 31 min "
                               "(some figures are modelled, not measured)\n"
                               "Only 100 s of that was sampled; gaps are not interpolated.\n"
                               "Snapshots of the future (up to 2027-01-15 13:45:00 +0545) are left out"),
                    HasSubstr("Battery    50.0 %\n"), ContainsRegex("03:58 +04:13 +04:29\n"),
                    HasSubstr("  1          a\n")))
      << "40 seconds are too short for a rate";
  add(2400, {{"a", 1}}, 50);
  EXPECT_THAT(historyReport(view(2410), {}), HasSubstr("Battery    50.0 %, steady\n"));
  EXPECT_THAT(historyReport(view(9e7), {}), MatchesRegex("The last 1h has no snapshots.\nSnapshots of.*\n"));
}

TEST_F(HistoryReport, WritesTimesInBothForms) {
  add(0, {{"a", 1}}, 50);
  add(36, {{"a", 1}}, 49);
  const auto json = encodeHistoryView(view(36));
  EXPECT_EQ(json.at("anchor"), base + 36 - PointInTime::epochOffsetSeconds);
  EXPECT_EQ(json.at("anchorTime"), "2023-11-14T22:13:56Z");
  EXPECT_EQ(json.at("windowStartTime"), "2023-11-14T21:13:56Z");
  for (const char* trend : {"powerTrend", "energyTrend", "batteryLevelTrend"}) {
    EXPECT_EQ(json.at(trend).at(1).at("timestamp"), json.at("anchor")) << trend;
    EXPECT_EQ(json.at(trend).at(1).at("time"), json.at("anchorTime")) << trend;
  }
  EXPECT_FALSE(json.contains("batteryDrainRatePctPerHour")) << "one step of 1 % within 36 seconds";
}

using Lines = std::vector<std::string>;
using Series = std::vector<std::pair<double, double>>;  // second, value

Lines chartOf(const Series& series, ChartAxes axes, ChartLayout layout) {
  std::vector<ChartSample> samples;
  for (const auto& [second, value] : series) samples.push_back({{second}, value});
  return terminalChart(samples, axes, layout);
}

TEST(TerminalChart, DrawsWhatWasMeasured) {
  const double none = std::nan(""), infinite = std::numeric_limits<double>::infinity();
  const ChartAxes plain{.start = {0}, .end = {3}}, apart{.start = {0}, .end = {3}, .longestJoinSeconds = 2};
  const ChartAxes framed{.start = {0}, .end = {9}, .unit = "W", .timeLabels = {"-1h", "mid", "now"}};
  struct Row {
    Series series;
    ChartAxes axes;
    ChartLayout layout;
    Lines lines;
  };
  const Row rows[] = {{{{0, 0}, {3, 3}}, plain, {4, 1, false}, {"..''"}},
                      {{{0, 0}, {3, 3}}, apart, {4, 1, false}, {".  '"}},
                      {{{0, 0}, {1, none}, {3, 3}}, plain, {4, 1, false}, {".  '"}},
                      {{{0, 5}, {3, 5}}, plain, {4, 1, false}, {"''''"}},
                      {{{1, 2}}, plain, {4, 1, false}, {" '"}},
                      {{{-9, 9}, {0, 1}, {4, 9}}, plain, {4, 1, false}, {"'"}},
                      {{{0, infinite}, {3, 3}}, plain, {4, 1, false}, {"   '"}},
                      {{}, plain, {40, 9, true}, {"(no data)"}},
                      {{{0, 0}, {3, 3}}, plain, {2, 1, true}, {"\u2860\u280A"}},
                      {{{0, 0}, {9, 3}},
                       framed,
                       {15, 4, false},
                       {"3 W +     ...''", "0 W +..'''", "    +----------", "     -1h    now"}}};
  for (const Row& row : rows) EXPECT_EQ(chartOf(row.series, row.axes, row.layout), row.lines);
  for (const auto& [value, top] : {std::pair(11.3, "12 W +"), {0.0026, "0.003 W +"}, {99, "100 W +"}})
    EXPECT_THAT(chartOf({{0, value}}, framed, {40, 7, false})[0], HasSubstr(top));
  EXPECT_EQ(chartOf({{0, 25}}, framed, {40, 7, false})[2], "12.5 W +");
}

}  // namespace
}  // namespace quenzel
