#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "QuenzelMonitor/PresentationStages.hpp"

namespace quenzel {
namespace {

TEST(PresentationStages, AnswerInJSON) {
  const std::string figures = R"("drainW":1,"energyShare":0,"sourceFlags":[]})";
  const std::string app = R"({"pid":9,"name":"/É.app/É",)" + figures;
  const std::string helper = R"j({"pid":8,"parentPID":9,"name":"(x)",)j" + figures;
  const auto json = inspectPresentation(R"({"snapshots":[{"timestamp":1,"totalDischargeW":5,"unattributedW":0,
      "hidden":[],"components":{},"processes":[)" +
                                        app + "," + helper + "]}]}");
  EXPECT_EQ(json["annotated"][0]["processes"][1]["canonicalName"], "É");
  EXPECT_EQ(json["annotated"][0]["processes"][1]["processGroupKey"], "app:/é.app");
  EXPECT_EQ(json["processes"][0][1].dump(),
            R"j({"processDisplayName":"x","processSubtitleText":"(x)","processPresentationScore":1,)j"
            R"("executableLeaf":"x","hasPowermetricsSourceFlag":false,"isAppleSystemProcess":false})");
  EXPECT_EQ(inspectSyntheticPID(R"([""])").dump(), "[-1935665603]");
  EXPECT_EQ(inspectTermination(R"({"groupedProcess":)" + app + R"(,"subprocesses":[]})").dump(),
            R"({"targetPIDs":[9]})");
  const std::string noProcess = R"({"pid":4294967296,"name":"",)" + figures;
  EXPECT_EQ(
      inspectTermination(R"({"groupedProcess":)" + noProcess + R"(,"subprocesses":[)" + app + "]}").dump(),
      R"({"targetPIDs":[9]})");
  EXPECT_EQ(inspectAppleProcess(R"([{"name":"x","displayName":"Dock"}])").dump(), "[true]");
}

}  // namespace
}  // namespace quenzel
