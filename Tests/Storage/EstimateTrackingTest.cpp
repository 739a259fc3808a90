#include <gtest/gtest.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Storage/SQLiteSnapshotStore.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel {
namespace {

using Status = EstimateTrackingStatus;

PointInTime at(double seconds) { return {seconds}; }

std::vector<std::int64_t> idsOf(const std::vector<EstimateTrackingRow>& rows) {
  std::vector<std::int64_t> ids;
  for (const EstimateTrackingRow& row : rows) ids.push_back(row.id);
  return ids;
}

TEST(EstimateTracking, FollowsAnEstimateToItsEvaluation) {
  const testing::TemporaryDirectory folder;
  const std::string path = folder / "history.sqlite";
  SQLiteSnapshotStore store(path, SQLiteSnapshotStore::Mode::readWriteCreate);
  const std::string estimate =
      R"("estimatedAt":300.0,"horizonSeconds":900,"estimateSource":"système",)"
      R"("onBatteryPower":true,"startingBatteryLevelPercent":81.5,"estimatedPowerW":12.25,)"
      R"("estimatedDrainRatePctPerHour":9.5,"estimatedTimeRemainingMinutes":480)";
  const std::string evaluation =
      R"("status":"evaluated","evaluatedAt":1200.0,"sampleDurationSeconds":890.5,)"
      R"("actualBatteryLevelPercent":79.25,"actualAveragePowerW":11.75,)"
      R"("actualDrainRatePctPerHour":9.0,"actualTimeRemainingMinutes":500.5,)"
      R"("powerErrorW":-0.5,"drainRateErrorPctPerHour":-0.25,"timeRemainingErrorMinutes":20.5)";
  EXPECT_EQ(store.insert(decodeEstimateInput(parseJSON("{" + estimate + "}"), {})), 1);
  EXPECT_EQ(store.insert(EstimateTrackingEstimateInput{.estimatedAt = at(100)}), 2);
  EXPECT_EQ(store.insert(EstimateTrackingEstimateInput{.estimatedAt = at(200)}), 3);

  EXPECT_EQ(store.fetchPendingEstimates(1), (std::vector<EstimateTrackingRow>{{2, at(100)}}));
  EXPECT_EQ(idsOf(store.fetchPendingEstimates(2)), (std::vector<std::int64_t>{2, 3})) << "oldest first";
  EXPECT_EQ(idsOf(store.fetchEstimateRows(2)), (std::vector<std::int64_t>{1, 3})) << "newest first";
  EXPECT_TRUE(store.fetchEstimateRows(-1).empty());

  EXPECT_TRUE(store.applyEvaluation(1, decodeEvaluationInput(parseJSON("{" + evaluation + "}"), {})));
  EXPECT_TRUE(store.applyEvaluation(2, {.status = Status::skippedPowerSourceChange, .evaluatedAt = at(160)}));
  EXPECT_FALSE(store.applyEvaluation(99, {.status = Status::evaluated}));
  EXPECT_EQ(idsOf(store.fetchPendingEstimates(9)), std::vector<std::int64_t>{3});
  const auto rows = store.fetchEstimateRows(9);
  EXPECT_EQ(rows[0],
            (EstimateTrackingRow{1, at(300), 900, "système", true, 81.5, 12.25, 9.5, 480, Status::evaluated,
                                 at(1200), 890.5, 79.25, 11.75, 9, 500.5, -0.5, -0.25, 20.5}));
  EXPECT_EQ(encodeEstimateRow(rows[0]).dump(),
            R"({"id":1,)" + estimate + "," + evaluation + R"(,"isEvaluated":true})");
  EXPECT_FALSE(rows[2].isEvaluated());

  Database database(path, Database::Access::readWriteCreate);
  Statement stored = database.prepared("SELECT evaluation_status FROM estimate_tracking WHERE id = 2;");
  ASSERT_TRUE(stored.next());
  EXPECT_EQ(stored.column<std::string>(0), "skipped_power_source_change");
  database.execute("UPDATE estimate_tracking SET evaluation_status = 'of the future' WHERE id = 3;");
  EXPECT_EQ(store.fetchEstimateRows(9)[1].status, Status::skippedInsufficientData);
}

}  // namespace
}  // namespace quenzel
