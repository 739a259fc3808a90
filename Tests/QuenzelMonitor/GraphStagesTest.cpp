#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "QuenzelMonitor/GraphStages.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

std::string snapshot(double timestamp, int levelPercent) {
  return fmt::format(
      R"({{"timestamp":{},"totalDischargeW":10,"processes":[{{"pid":1,"name":"Ärger","drainW":5,"energyShare":1,"sourceFlags":[]}}],
    "hidden":[],"components":{{}},"unattributedW":0,"batteryStatus":{{"levelPercent":{},"isCharging":false,"externalPowerConnected":false}}}})",
      timestamp, levelPercent);
}

TEST(GraphStagesTest, AnswersInTheKeysOfTheRecords) {
  const std::string earlier = snapshot(0, 50), later = snapshot(36, 49),
                    atRest =
                        R"(,"totalW":8,"processW":0,"componentW":0,"unattributedW":0,"onBatteryPower":true})";
  const std::string points = fmt::format(R"([{{"id":"é 1","timestamp":0{0},{{"id":"","timestamp":36{0}])",
                                         atRest);  // ids are any text
  struct Row {
    nlohmann::ordered_json (*stage)(std::string_view);
    std::string input, output;
  };
  const Row rows[] = {
      {inspectPowerTrend, fmt::format(R"({{"points":{},"maxPoints":1}})", points),
       fmt::format(
           R"({{"clamped":{0},"dipFilled":{0},"medianFiltered":{0},"smoothed":{0},"downsampled":{0},"energyTrend":{1},"energyDownsampled":{1}}})",
           points,
           R"([{"id":"é 1","timestamp":0,"totalWh":0,"batteryWh":0},{"id":"","timestamp":36,"totalWh":0.08,"batteryWh":0.08}])")},
      {inspectBatteryTrend,
       fmt::format(R"({{"snapshots":[{},{}],"graphMaxPoints":9}})", snapshot(0, 50), snapshot(360, 49)),
       R"({"batteryLevelTrend":[{"id":"0","timestamp":0,"levelPercent":50},{"id":"360000","timestamp":360,"levelPercent":49}],"drainRatePerHour":10})"},
      {inspectBatteryTrend, R"({"snapshots":[],"graphMaxPoints":0})", R"({"batteryLevelTrend":[]})"},
      {inspectSnapshotQuality, fmt::format("[{}]", earlier), "[1.5]"},
      {inspectSummary,
       fmt::format(R"({{"sourceRaw":[{1},{0}],"fallbackSnapshot":{0},"windowSeconds":60}})", earlier, later),
       R"({"windowed":[0,36],"totalWh":0.1,"groupedWhByName":{"Ärger":0.05},"rangeSnapshot":36,"processGroups":[
         {"id":"ärger","canonicalName":"Ärger","totalDrainW":5,"totalEnergyWh":0.05,"processes":["1-Ärger"]}]})"}};
  for (const Row& row : rows)
    EXPECT_EQ(nlohmann::json(row.stage(row.input)), nlohmann::json::parse(row.output)) << row.input;
  EXPECT_THROW(inspectPowerTrend(R"({"points":[{"id":1}],"maxPoints":1})"), JSONCodingError);
}

}  // namespace
}  // namespace quenzel
