#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SharedModels/Presentation/AppleProcessDetector.hpp"
#include "SharedModels/Presentation/ProcessTerminationTargetResolver.hpp"
#include "Tests/Support/Fingerprint.hpp"

namespace quenzel {
namespace {

using ProcessTerminationTargetResolver::targetPIDs;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(AppleProcessDetector, KnowsTheSystemsOwnProcesses) {
  // The name, the bundle identifier and the name that is shown.
  const auto isSystem = [](const std::string& row) {
    std::istringstream fields(row);
    std::string name, bundleID, displayName;
    std::getline(std::getline(std::getline(fields, name, '|'), bundleID, '|'), displayName);
    return AppleProcessDetector::isAppleSystemProcess(
        name, bundleID.empty() ? std::nullopt : std::optional(bundleID), displayName);
  };
  for (const char* row :
       {"/usr/libexec/foo", "/usr/local/bin/LaunchD", "/SYSTEM/library/q", "mdworker shared", "kernel_task",
        "/opt/\u212Aernel_Task/", "x|COM.APPLE.Example", "my.com.Apple.helper", "x||Com.Apple.X", "/opt/mds",
        "x||WidgetKit Simulator", "Knowledge-Agent", "x||AccessibilityVizSuport"})
    EXPECT_TRUE(isSystem(row)) << row;
  for (const char* row :
       {"/usr/local/bin/foo", "x||Natural Language Service", "x|org.com.apple.x", "x|COM.APPLEX.y",
        "x|com.apple", "/opt/mds/x", "x||widgetkit-simulator", "knowledge agent", "x||my com.apple.x",
        "x||accessibilityvizsupport", "usr/sbin/foo"})
    EXPECT_FALSE(isSystem(row)) << row;
  for (const std::string_view prefix : AppleProcessDetector::systemPathPrefixes)
    EXPECT_TRUE(AppleProcessDetector::isAppleSystemProcess(std::string(prefix) + "x", {}, "")) << prefix;
}

TEST(AppleProcessDetector, KnowsEveryNameAsItStands) {
  // The sorted names, one a line, as the product has published them.
  const auto& names = AppleProcessDetector::systemProcessNames();
  std::string sorted;
  for (const std::string_view name : std::set<std::string_view>(names.begin(), names.end()))
    sorted.append(name) += '\n';
  EXPECT_EQ(names.size(), 188U);
  EXPECT_EQ(testing::fingerprint(sorted), 0xE8132131AAEC8BE9U) << sorted;
}

TEST(TerminationTargetResolver, EndsTheApplicationBeforeItsHelpers) {
  const ProcessDrain group{.pid = -5, .name = "/A.app/Contents/MacOS/A", .bundleID = "org.A"};
  // Each lacks one thing that the one before it has, and all else is in its favour.
  const std::vector<ProcessDrain> members = {
      {.pid = 3, .name = "plain"},
      {.pid = 30, .parentPID = 3, .name = "plain"},
      {.pid = 31, .parentPID = 1000, .name = "plain"},
      {.pid = 2, .parentPID = 1000, .name = "a"},
      {.pid = 90, .name = "/A.app/Contents/MacOS/x"},
      {.pid = 91, .parentPID = 90, .name = "/A.app/Contents/MacOS/x"},
      {.pid = 80, .name = "/A.app/Contents/Agents/y", .bundleID = "org.a"},
      {.pid = 95, .name = "/A.app/Contents/MacOS/A", .bundleID = "ORG.a"},
      {.pid = 1, .name = "/B.app/Contents/MacOS/B", .bundleID = "org.a"},
      {.pid = 95, .name = "a"},
      {.pid = 0, .name = "/A.app/Contents/MacOS/A", .bundleID = "org.a"},
  };
  EXPECT_THAT(targetPIDs(group, members), ElementsAre(95, 80, 1, 90, 91, 2, 3, 31, 30));
}

TEST(TerminationTargetResolver, FallsBackToTheRowItself) {
  EXPECT_THAT(targetPIDs({.pid = 2147483647}, {}), ElementsAre(2147483647));
  EXPECT_THAT(targetPIDs({.pid = 4}, std::vector<ProcessDrain>{{.pid = 0}, {.pid = -9}}), ElementsAre(4));
  EXPECT_THAT(targetPIDs({.pid = -4}, {}), IsEmpty());
  EXPECT_DEATH(targetPIDs({.pid = 1}, std::vector<ProcessDrain>{{.pid = 4294967297}}),
               "process number 4294967297 is out of range");
}

}  // namespace
}  // namespace quenzel
