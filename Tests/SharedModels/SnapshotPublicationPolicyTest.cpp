#include <limits>

#include <gtest/gtest.h>

#include "SharedModels/Snapshot/SnapshotPublicationPolicy.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"

namespace quenzel {
namespace {

using enum SnapshotPublicationDecision;

TEST(SnapshotPublicationPolicyTest, LooksAtTheTotalAlone) {
  constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
  const struct {
    double totalW;
    SnapshotPublicationDecision decision;
  } rows[] = {{0.1, insufficientTotalPower}, {0.1000001, publishable}, {0, insufficientTotalPower},
              {-5, insufficientTotalPower},  {20, publishable},        {notANumber, publishable}};
  for (const auto& row : rows) {
    EXPECT_EQ(SnapshotPublicationPolicy::decision(makeSnapshot(0, row.totalW)), row.decision) << row.totalW;
  }
}

TEST(SnapshotPublicationPolicyTest, DecisionsHaveTheirCodesAndReasons) {
  const struct {
    SnapshotPublicationDecision decision;
    const char* code;
    std::optional<std::string_view> reason;
  } rows[] = {
      {publishable, "publishable", std::nullopt},
      {insufficientTotalPower, "insufficientTotalPower", "total power was not high enough to publish"},
      {missingAttributedProcesses, "missingAttributedProcesses",
       "powermetrics reported attributed power but no processes were publishable"},
      {missingProcessDrain, "missingProcessDrain",
       "powermetrics reported attributed power but process drain summed to zero"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(rawValue(row.decision), row.code);
    EXPECT_EQ(snapshotPublicationDecision(row.code), row.decision);
    EXPECT_EQ(rejectionReason(row.decision), row.reason) << row.code;
    EXPECT_EQ(isPublishable(row.decision), !row.reason) << row.code;
  }
  EXPECT_EQ(snapshotPublicationDecision("Publishable"), std::nullopt);
}

}  // namespace
}  // namespace quenzel
