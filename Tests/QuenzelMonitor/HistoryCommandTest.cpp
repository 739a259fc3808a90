#include <limits>

#include <gtest/gtest.h>

#include "Tests/QuenzelMonitor/RunQuenzel.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using testing::Outcome;

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

}  // namespace
}  // namespace quenzel
