#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SharedModels/Presentation/AppleProcessDetector.hpp"
#include "SharedModels/Presentation/ProcessTerminationTargetResolver.hpp"

namespace quenzel {
namespace {

using ProcessTerminationTargetResolver::targetPIDs;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(AppleProcessDetector, KnowsTheSystemsOwnProcesses) {
  struct Row {
    const char* name;
    std::optional<std::string> bundleID;
    const char* displayName;
    bool isSystem;
  };
  const Row rows[] = {
      {"/usr/libexec/foo", {}, "foo", true},
      {"/usr/local/bin/foo", {}, "foo", false},
      {"/usr/local/bin/LaunchD", {}, "x", true},
      {"/SYSTEM/library/q", {}, "q", true},
      {"mdworker shared", {}, "x", true},
      {"x", {}, "Natural Language Service", false},
      {"kernel_task", {}, "x", true},
      {"/opt/\u212Aernel_Task/", {}, "x", true},
      {"x", "COM.APPLE.Example", "x", true},
      {"x", "org.com.apple.x", "x", false},
      {"x", "COM.APPLEX.y", "x", false},
      {"x", "com.apple", "x", false},
      {"my.com.Apple.helper", {}, "x", true},
      {"x", {}, "Com.Apple.X", true},
      {"/opt/mds", {}, "x", true},
      {"/opt/mds/x", {}, "x", false},
      {"x", {}, "WidgetKit Simulator", true},
      {"x", {}, "widgetkit-simulator", false},
      {"Knowledge-Agent", {}, "x", true},
      {"knowledge agent", {}, "x", false},
      {"x", {}, "my com.apple.x", false},
      {"x", {}, "AccessibilityVizSuport", true},
      {"x", {}, "accessibilityvizsupport", false},
      {"usr/sbin/foo", {}, "", false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(AppleProcessDetector::isAppleSystemProcess(row.name, row.bundleID, row.displayName),
              row.isSystem)
        << row.name << ", " << row.displayName;
  }
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
  std::uint64_t hash = 0xCBF29CE484222325U;  // FNV-1a, 64 bits
  for (const char byte : sorted) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3U;
  EXPECT_EQ(hash, 0xE8132131AAEC8BE9U) << sorted;
}

TEST(TerminationTargetResolver, EndsTheApplicationBeforeItsHelpers) {
  const ProcessDrain group{.pid = -5, .name = "/A.app/Contents/MacOS/A", .bundleID = "org.A"};
  // Each lacks one thing that the one before it has, and all else is in its favour.
  const std::vector<ProcessDrain> members = {
      {.pid = 3, .name = "plain"},
      {.pid = 30, .parentPID = 3, .name = "plain"},
      {.pid = 2, .parentPID = 1000, .name = "a"},
      {.pid = 90, .name = "/A.app/Contents/MacOS/x"},
      {.pid = 91, .parentPID = 90, .name = "/A.app/Contents/MacOS/x"},
      {.pid = 80, .name = "/A.app/Contents/Agents/y", .bundleID = "org.a"},
      {.pid = 95, .name = "/A.app/Contents/MacOS/A", .bundleID = "ORG.a"},
      {.pid = 1, .name = "/B.app/Contents/MacOS/B", .bundleID = "org.a"},
      {.pid = 95, .name = "a"},
      {.pid = 0, .name = "/A.app/Contents/MacOS/A", .bundleID = "org.a"},
  };
  EXPECT_THAT(targetPIDs(group, members), ElementsAre(95, 80, 1, 90, 91, 2, 3, 30));
}

TEST(TerminationTargetResolver, FallsBackToTheRowItself) {
  EXPECT_THAT(targetPIDs({.pid = 4}, {}), ElementsAre(4));
  EXPECT_THAT(targetPIDs({.pid = 4}, std::vector<ProcessDrain>{{.pid = 0}, {.pid = -9}}), ElementsAre(4));
  EXPECT_THAT(targetPIDs({.pid = -4}, {}), IsEmpty());
  EXPECT_DEATH(targetPIDs({.pid = 1}, std::vector<ProcessDrain>{{.pid = 4294967297}}), "4294967297");
}

}  // namespace
}  // namespace quenzel
