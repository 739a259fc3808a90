#include <map>
#include <random>
#include <set>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Base/Text.hpp"
#include "SharedModels/Presentation/ProcessAttributionPresentationService.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"

namespace quenzel {
namespace {

using namespace ProcessAttributionPresentationService;
using ::testing::ElementsAre;
using namespace std::string_literals;

using Text = std::optional<std::string>;
constexpr auto none = std::nullopt;

TEST(ProcessPresentation, DerivesWhatARowShows) {
  // What is shown, the line below it, the score, the leaf of the executable and the key of the group.
  const std::tuple<std::int64_t, const char*, Text, Text, std::string> rows[] = {
      {7, "/Applications/Foo.app/Contents/MacOS/Foo Agent", "com.E.foo ", none,
       "Foo|/Applications/Foo.app|34|Foo Agent|bundle:com.e.foo"},
      {7, "/usr/libexec/Bar", none, none, "Bar|/usr/libexec/Bar|11|Bar|exec:/usr/libexec/bar"},
      {0, "/x//A.APP/Contents/b.app/c/", " ", " A B ", " A B |/x/A.APP|33|c|app:/x/a.app"},
      {0, "/\u00C9.app/\u00C9x", none, "\u2003", "\u00C9|/\u00C9.app|30|\u00C9x|app:/\u00E9.app"},
      {0, "/.app/x", "", none, ".app|/.app|30|x|app:/.app"},
      {0, "/", none, none, "/|/|10|/|exec:/"},
      {0, "/opt/a)", none, none, "a)|/opt/a)|10|a)|exec:/opt/a)"},
      {0, "(xpcproxy)", none, none, "xpcproxy|(xpcproxy)|0|xpcproxy|name:xpcproxy"},
      {-1, "()", none, none, "()|none|0||name:()"},
      {1, "com.example.Agent", "com.x", none, "Agent|com.x|4|com.example.Agent|name:agent"},
      {1, " kworker/0:1 ", "", none, "kworker/0:1|none|1|0:1|name:kworker/0:1"},
      {0, " ", none, none, " |none|0| |raw:"}};
  for (const auto& [pid, name, bundleID, stored, shown] : rows) {
    const ProcessDrain row{.pid = pid, .name = name, .bundleID = bundleID, .displayName = stored};
    const std::string display = processDisplayName(row);
    EXPECT_EQ(
        fmt::format("{}|{}|{}|{}|{}", display, processSubtitleText(row).value_or("none"),
                    processPresentationScore(row), executableLeaf(row), processGroupKeySource(row, display)),
        shown);
  }
  std::string normalized;
  for (const char* name : {"( )", "( a )", "(", "a)", "com.example", "my.app.thing", "com.example.Foo Bar",
                           "CO..x.y.", "com.a/b.c", ".x.y", "\n"})
    normalized += normalizedDisplayName(name) + "|";
  EXPECT_EQ(normalized, "( )|a|(|a)|com.example|my.app.thing|com.example.Foo Bar|y|com.a/b.c|.x.y|\n|");
  for (const std::string_view label : splitWhitespace("com org net io dev edu gov app ai me co"))
    EXPECT_EQ(normalizedDisplayName(std::string(label) + ".example.shown"), "shown") << label;
  EXPECT_EQ(topLevelAppBundlePath("/Applications/A.app/Contents/Agents/B.app/x"), "/Applications/A.app");
  EXPECT_EQ(topLevelAppBundlePath("/a.apps/app"), none);
}

TEST(ProcessPresentation, NumbersRowsThatAreNoProcess) {
  EXPECT_EQ(stableSyntheticPID(""), -1935665603);
  // (0x14650FB0739D0383 ^ 'a') * 0x100000001B3 mod 2^64 = 4953267810257967366
  EXPECT_EQ(stableSyntheticPID("a"), -258967366);
  EXPECT_EQ(stableSyntheticPID("\u00E9"), -119930795) << "each of the bytes C3 A9 counts from 0 to 255";
}

ProcessDrain child(std::int64_t pid, std::int64_t parent, std::string name, double drainW = 0,
                   std::vector<std::string> sourceFlags = {"powermetrics_cpu"}) {
  ProcessDrain process = makeProcessDrain(pid, std::move(name), drainW, std::move(sourceFlags));
  process.parentPID = parent;
  return process;
}

TEST(ProcessPresentation, ShowsHelpersUnderTheApplicationThatHostsThem) {
  std::vector<ProcessDrain> rows = {makeProcessDrain(10, "/Applications/Foo.app/Contents/MacOS/Foo", 0)};
  for (int pid = 11; pid <= 19; ++pid) rows.push_back(child(pid, pid - 1, "/opt/helper"));
  rows.push_back(child(30, 31, "/opt/a"));  // a circle of parents
  rows.push_back(child(31, 30, "/opt/b"));
  rows.push_back(child(40, 10, "/System/Library/Dock.app/Dock"));  // the system's applications host nobody
  rows.push_back(child(41, 40, "dock-helper"));
  rows.push_back(child(50, 1, "FOO"));  // an alias of the executable in the bundle
  rows.push_back(makeProcessDrain(60, "/opt/tool", 0));
  rows.back().bundleID = "org.tool";
  rows.push_back(child(61, 60, "/opt/Foo"));
  rows.push_back(child(70, 10, "/Applications/Bar.app/Contents/MacOS/Bar"));  // hosts itself
  rows.push_back(child(71, 70, "/opt/bar-helper"));
  const auto annotated = annotateSnapshot(makeSnapshot(0, 1, rows), {makeSnapshot(0, 1, rows)});
  std::map<std::int64_t, std::string> canonical;
  for (const ProcessDrain& row : annotated.processes) canonical[row.pid] = *row.canonicalName;
  EXPECT_EQ(canonical[18], "Foo") << "eight hops";
  EXPECT_EQ(canonical[19], "helper") << "nine hops";
  EXPECT_EQ(canonical[31], "b");
  EXPECT_EQ(canonical[41], "Foo");
  EXPECT_EQ(canonical[50], "Foo");
  EXPECT_EQ(canonical[61], "tool") << "a host's name goes before an alias";
  EXPECT_EQ(std::pair(canonical[70], canonical[71]), std::pair("Bar"s, "Bar"s)) << "the nearest application";
  EXPECT_EQ(annotated.processes[18].processGroupKey, "app:/applications/bar.app") << "hosts itself";
  EXPECT_EQ(annotated.processes[1].displayName, "helper");
  EXPECT_EQ(annotated.processes[1].processGroupKey, "app:/applications/foo.app") << "the host's";

  ProcessDrain stored = child(11, 10, "/opt/helper");
  stored.displayName = " shown ";
  stored.canonicalName = " kept ";
  stored.processGroupKey = " key ";
  stored = annotateSnapshot(makeSnapshot(0, 1, {stored}), {}).processes[0];
  EXPECT_THAT((std::vector{*stored.displayName, *stored.canonicalName, *stored.processGroupKey}),
              ElementsAre("shown", "kept", "key"));
}

TEST(ProcessPresentation, PrefersTheBestNameAndOfEqualOnesTheFirst) {
  std::vector<ProcessDrain> rows = {makeProcessDrain(0, "/A.app/tool", 0),
                                    makeProcessDrain(2, "/B.app/tool", 0),
                                    makeProcessDrain(3, "/C.app/tool", 0),
                                    makeProcessDrain(4, "/opt/other", 0),  // in no application: no alias
                                    makeProcessDrain(5, "", 0)};
  const auto context = makePresentationContext(std::vector{makeSnapshot(0, 1, rows)});
  EXPECT_EQ(context.aliasByExecutableLeaf, (TextMap<std::string>{{"tool", "B"}}));
  EXPECT_EQ(context.displayNameByProcessID, (TextMap<std::string>{{"0-/A.app/tool", "A"},
                                                                  {"2-/B.app/tool", "B"},
                                                                  {"3-/C.app/tool", "C"},
                                                                  {"4-/opt/other", "other"},
                                                                  {"5-", ""}}));
  DisplayNameCache cache;
  EXPECT_EQ(buildExecutableAliasMap(rows, cache), context.aliasByExecutableLeaf);
  const auto watts = processWattsByDisplayName(
      makeSnapshot(0, 1, {makeProcessDrain(9, "(tool)", 2), makeProcessDrain(8, "x", -1)}),
      context.aliasByExecutableLeaf, cache);
  EXPECT_EQ(watts, (TextMap<double>{{"B", 2}, {"x", 0}}));
  ProcessPresentationContext keyed;  // by the identifiers of the rows alone
  keyed.canonicalNameByProcessID = {{"7-x", "Known"}};
  const auto two = makeSnapshot(0, 1, {makeProcessDrain(7, "x", 2), makeProcessDrain(8, "y", 1)});
  EXPECT_EQ(processWattsByDisplayName(two, keyed), (TextMap<double>{{"Known", 2}, {"y", 1}}));
}

TEST(ProcessPresentation, KeepsTheNameOfANumberThatIsUsedAgain) {
  ProcessDrain best = makeProcessDrain(12, "/B.app/x/tool", 0);
  best.bundleID = "org.b";
  const ProcessDrain old = child(5, 10, "/opt/old"), host = makeProcessDrain(10, "/A.app/x/tool", 0);
  const auto bare = makeSnapshot(1, 1, {makeProcessDrain(5, "bare", 0)});
  const auto nameOf = [](const char* id, const std::vector<DrainSnapshot>& history) {
    return makePresentationContext(history).canonicalNameByProcessID.at(id);
  };
  // The better alias of its executable names the host "B", which is not known yet to whoever comes before it.
  EXPECT_EQ(nameOf("5-bare", {makeSnapshot(0, 1, {old, host, best}), bare}), "A");
  EXPECT_EQ(nameOf("5-bare", {makeSnapshot(0, 1, {host, old, best}), bare}), "B");
  const std::vector<DrainSnapshot> renamed = {makeSnapshot(0, 1, {makeProcessDrain(5, "/opt/p", 0)}),
                                              makeSnapshot(1, 1, {makeProcessDrain(5, "/opt/q", 0)})};
  EXPECT_EQ(nameOf("5-/opt/p", renamed), "p");
  EXPECT_EQ(nameOf("5-/opt/q", renamed), "p");
}

/// Histories with numbers used again, renamed executables, changing parents and stored names.
std::vector<DrainSnapshot> randomHistory(std::mt19937& random) {
  static const auto names =
      splitWhitespace("/A/Foo.app/x/Foo /A/Bar.app/x/Foo foo FOO (tool) com.example.Agent");
  const auto pick = [&](int count) { return static_cast<int>(random() % static_cast<unsigned>(count)); };
  std::vector<DrainSnapshot> history(static_cast<std::size_t>(1 + pick(8)));
  for (DrainSnapshot& snapshot : history) {
    for (int rows = pick(12); rows > 0; --rows) {
      ProcessDrain& row =
          snapshot.processes.emplace_back(makeProcessDrain(pick(7), std::string(names[random() % 6]), 1));
      if (pick(2)) row.parentPID = pick(7);
      if (pick(4) == 0) row.bundleID = pick(2) ? "com.apple.x" : "org.x";
      if (pick(5) == 0) row.displayName = row.canonicalName = pick(2) ? "foo" : "Shown";
    }
  }
  return history;
}

TEST(ProcessPresentation, ExtendingAContextEqualsRebuildingIt) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    const std::vector<DrainSnapshot> history = randomHistory(random);
    ProcessPresentationContext extended;
    for (std::span<const DrainSnapshot> rest = history; !rest.empty();) {
      const std::size_t count = 1 + random() % rest.size();
      extended = appendingPresentationContext(extended, rest.first(count));
      rest = rest.subspan(count);
    }
    ASSERT_EQ(extended, makePresentationContext(history));
    ASSERT_EQ(extended, makeLatestOnlyPresentationContext(history));
    std::vector<const DrainSnapshot*> places;
    for (const DrainSnapshot& snapshot : history) places.push_back(&snapshot);
    ASSERT_EQ(extended, makeLatestOnlyContextInPlace(places));
    std::map<std::int64_t, ProcessDrain> latest;
    for (const DrainSnapshot& snapshot : history) {
      for (const ProcessDrain& row : snapshot.processes) latest.insert_or_assign(row.pid, row);
    }
    ASSERT_THAT(extended.latestProcessByPID, ::testing::UnorderedElementsAreArray(latest));
  }
  const CancellationToken cancelled;
  cancelled.cancel();
  EXPECT_EQ(makeLatestOnlyPresentationContext(std::vector{makeSnapshot(0, 1, {makeProcessDrain(1, "a", 0)})},
                                              cancelled),
            ProcessPresentationContext{});
}

TEST(ProcessPresentation, GroupsRowsUnderTheNameThatIsShown) {
  DrainSnapshot snapshot =
      makeSnapshot(0, 9,
                   {child(12, 10, "/opt/helper", 3, {"a", "b"}), makeProcessDrain(20, "bar", std::nan("")),
                    makeProcessDrain(10, "/Foo.app/Contents/MacOS/Foo", 1, {"b", "c", "c"}),
                    makeProcessDrain(21, "baz", 0), child(11, 10, "/Foo.app/Contents/Agents/Foo", 3)});
  for (ProcessDrain& process : snapshot.processes) process.energyShare = 0.125;
  const auto context = makePresentationContext(std::span(&snapshot, 1));
  const auto visible = groupVisibleProcesses(
      snapshot, context, {{"Foo", 2}, {"FOO", 1}, {"ended", 0.5}, {"bar", -1}, {"baz", 0}});
  std::vector<std::string> rows;
  for (const ProcessDrain& row : visible.processes) {
    rows.push_back(fmt::format("{} {} {} {} {} Wh {} W {}", row.pid, row.name, *row.displayName,
                               *row.processGroupKey, visible.processWhByID.at(row.id()), row.drainW,
                               row.energyShare));
  }
  const std::int32_t foo = stableSyntheticPID("foo");
  EXPECT_THAT(rows,
              ElementsAre(fmt::format("{} /Foo.app/Contents/MacOS/Foo Foo app:/foo.app 3 Wh 7 W 0.375", foo),
                          "20 bar bar name:bar 0 Wh 0 W 0.125", "21 baz baz name:baz 0 Wh 0 W 0.125"));
  ASSERT_FALSE(visible.processes.empty());
  ASSERT_EQ(visible.subprocessesByID.size(), 1U);
  std::vector<std::int64_t> members;
  for (const ProcessDrain& member : visible.subprocessesByID.at(visible.processes[0].id()))
    members.push_back(member.pid);
  EXPECT_THAT(members, ElementsAre(11, 12, 10)) << "by power, then by number";
  EXPECT_THAT(visible.processes[0].sourceFlags, ElementsAre("powermetrics_cpu", "a", "b", "c"));

  const std::vector equals = {makeProcessDrain(3, "x", 0), makeProcessDrain(5, "x", 0),
                              makeProcessDrain(2, "x", 0), makeProcessDrain(4, "x", 0)};
  EXPECT_EQ(bestVisibleRepresentativeSource("x", equals[0], equals).pid, 2) << "the first of equals by PID";
  DrainSnapshot earlier = snapshot;
  earlier.hidden = {{HiddenDrainKind::dockerContainer, "web", 4},
                    {HiddenDrainKind::launchdService, "web", 1}};
  DrainSnapshot later = snapshot;
  later.hidden = {{HiddenDrainKind::dockerContainer, "web", 6}};
  const std::vector<DrainSnapshot> window = {earlier, later};
  const TextMap<double> hiddenWh = {{"docker_container-web", 1}, {"launchd_service-web", 3}};
  EXPECT_THAT(makeUniqueProcesses(window, {}, hiddenWh, 2, {}, context).hidden,
              ElementsAre(HiddenDrain{HiddenDrainKind::launchdService, "web", 1.5},
                          HiddenDrain{HiddenDrainKind::dockerContainer, "web", 0.5}));
  EXPECT_THAT(makeUniqueProcesses({}, {}, {}, 0, later, context).hidden, later.hidden)
      << "nothing was sampled";
}

}  // namespace
}  // namespace quenzel
