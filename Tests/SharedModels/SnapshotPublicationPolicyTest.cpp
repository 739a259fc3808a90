#include <cmath>

#include <gtest/gtest.h>

#include "SharedModels/Snapshot/SnapshotPublicationPolicy.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"

namespace quenzel {
namespace {

using enum SnapshotPublicationDecision;

TEST(SnapshotPublicationPolicyTest, LooksAtTheTotalAlone) {
  const auto decision = [](double totalW) {
    return SnapshotPublicationPolicy::decision(makeSnapshot(0, totalW));
  };
  for (const double low : {0.1, -5.0}) EXPECT_EQ(decision(low), insufficientTotalPower) << low;
  for (const double enough : {0.1000001, 20.0, std::nan("")}) EXPECT_EQ(decision(enough), publishable);
}

TEST(SnapshotPublicationPolicyTest, DecisionsHaveTheirCodesAndReasons) {
  using Reason = std::optional<std::string_view>;
  const std::tuple<SnapshotPublicationDecision, std::string_view, Reason> rows[] = {
      {publishable, "publishable", std::nullopt},
      {insufficientTotalPower, "insufficientTotalPower", "total power was not high enough to publish"},
      {missingAttributedProcesses, "missingAttributedProcesses",
       "powermetrics reported attributed power but no processes were publishable"},
      {missingProcessDrain, "missingProcessDrain",
       "powermetrics reported attributed power but process drain summed to zero"},
  };
  for (const auto& [decision, code, reason] : rows) {
    EXPECT_EQ(rawValue(decision), code);
    EXPECT_EQ(snapshotPublicationDecision(code), decision);
    EXPECT_EQ(rejectionReason(decision), reason) << code;
    EXPECT_EQ(isPublishable(decision), !reason) << code;
  }
  EXPECT_EQ(snapshotPublicationDecision("Publishable"), std::nullopt);
}

}  // namespace
}  // namespace quenzel
