#include <csignal>
#include <iterator>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "QuenzelMonitor/ApplicationQuit.hpp"
#include "QuenzelMonitor/CommandLine.hpp"
#include "Tests/Support/DaemonProcess.hpp"
#include "Tests/Support/SnapshotBuilders.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using testing::eventually;

ProcessSample process(std::int64_t pid, std::int64_t parent, const char* name,
                      const char* bundleID = nullptr) {
  ProcessSample sample = makeProcessSample(pid, name);
  sample.parentPID = parent;
  if (bundleID) sample.bundleID = bundleID;
  return sample;
}

TEST(ApplicationQuit, FindsAnApplicationWithItsHelpersAndSparesItself) {
  const std::vector<ProcessSample> running = {process(1, 0, "/sbin/init"),
                                              process(10, 1, "/Foo.app/Contents/MacOS/Foo"),
                                              process(11, 10, "/opt/h\u00C9lper"),
                                              process(12, 10, "/usr/bin/ssh"),
                                              process(13, 10, "/System/Library/Dock.app/x/panel"),
                                              process(14, 1, "panel"),
                                              process(20, 1, "/Bar.app/Contents/MacOS/Bar"),
                                              process(21, 20, "/opt/h\u00C9lper"),
                                              process(30, 1, "/opt/shell"),
                                              process(31, 30, "/opt/quenzel"),
                                              process(32, 30, "/opt/shell"),
                                              process(40, 1, "/usr/bin/tool"),
                                              process(41, 1, "/opt/tool"),
                                              process(50, 1, "Agent"),
                                              process(51, 1, "com.apple.Agent"),
                                              process(60, 1, "/Web.app/Contents/MacOS/Web", "org.w"),
                                              process(61, 60, "/Web.app/Contents/x/GPU", "org.w.h"),
                                              process(62, 61, "/opt/pipe"),
                                              process(70, 1, "/opt/b\uFFFDd"),
                                              process(80, 1, "ide", "org.ide"),
                                              process(81, 80, "/usr/bin/git")};
  const std::pair<const char*, QuitPlan> plans[] = {
      {" FOO ", {"Foo", false, {{10, "Foo"}, {13, "panel"}, {11, "h\u00C9lper"}, {12, "ssh"}}, {}}},
      {"app:/bar.APP", {"Bar", false, {{20, "Bar"}, {21, "h\u00C9lper"}}, {}}},
      {"web", {"Web", false, {{60, "Web"}, {61, "GPU"}, {62, "pipe"}}, {}}},
      {"bundle:org.w", {"Web", false, {{60, "Web"}}, {}}},
      {"exec:/opt/tool", {"tool", false, {{41, "tool"}}, {}}},
      {"exec:/usr/bin/tool", {"tool", true, {{40, "tool"}}, {}}},
      {"agent", {"Agent", true, {{50, "Agent"}, {51, "com.apple.Agent"}}, {}}},
      {"ide", {"ide", false, {{80, "ide"}, {81, "git"}}, {}}},  // though the path of the tool represents it
      {"shell", {"shell", false, {{32, "shell"}}, {30}}},
      {"init", {"init", true, {}, {1}}},
      {"b\xFF"
       "d",
       {"b\uFFFDd", false, {{70, "b\uFFFDd"}}, {}}}};
  const std::pair<const char*, const char*> refusals[] = {
      {"H\u00E9lper", R"("Hélper" is shown under Bar, Foo; "quit NAME" ends it all)"},
      {"SSH", R"("SSH" is shown under Foo; "quit Foo" ends it all)"},
      {"panel", R"("panel" is shown under Dock; "quit Dock" ends it all)"},  // the one process of its row
      {"tool",
       R"("tool" is the name of several: exec:/opt/tool, exec:/usr/bin/tool; "quit KEY" ends one of them)"},
      {"Fo", R"(no application "Fo" is running)"}};
  for (const auto& [name, plan] : plans) EXPECT_EQ(planQuit(running, name, 31), plan) << name;
  for (const auto& [name, reason] : refusals)
    EXPECT_STREQ(thrownBy<CommandError>([&, wanted = name] { planQuit(running, wanted, 31); }).what(),
                 reason);
}

/// A real application with two helpers, one of them in its bundle, under a parent that buries its dead.
class RealApplication {
 public:
  explicit RealApplication(const testing::TemporaryDirectory& folder) : pids_(folder / "pids") {
    const std::string app = copied("/bin/sh", folder.write("Quitme.app/Contents/MacOS/Quitme", ""));
    const std::string agent = copied("/bin/sleep", folder.write("Quitme.app/Contents/Agents/Agent", ""));
    const std::string script =
        fmt::format("/bin/sleep 1000 & echo $$ $! >'{0}'\n'{1}' 1000 & echo $! >>'{0}'\nwait", pids_, agent);
    warden_ = ::fork();
    if (warden_ > 0) return;
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    if (::fork() == 0) ::execl(app.c_str(), "Quitme", "-c", script.c_str(), nullptr);
    while (::wait(nullptr) > 0) {
    }
    ::_exit(0);
  }
  ~RealApplication() {
    for (const int pid : pids()) ::kill(pid, SIGKILL);
    ::waitpid(warden_, nullptr, 0);
  }

  /// Of the application, its helper and its agent, as soon as all of them run.
  std::vector<int> pids() const {
    std::ifstream file(pids_);
    return {std::istream_iterator<int>(file), {}};
  }
  bool isComplete() const {
    const std::vector<int> running = pids();
    return running.size() == 3 && executable(running[1]) != "Quitme" && executable(running[2]) == "Agent";
  }

 private:
  static std::string copied(const char* program, const std::string& target) {
    std::filesystem::copy_file(program, target, std::filesystem::copy_options::overwrite_existing);
    return target;
  }
  static std::string executable(int pid) {
    std::error_code ignored;
    return std::filesystem::read_symlink(fmt::format("/proc/{}/exe", pid), ignored).filename();
  }

  std::string pids_;
  pid_t warden_;
};

TEST(ApplicationQuit, EndsARealApplicationBeforeItsHelpers) {
  const testing::DaemonSurroundings surroundings;
  const testing::DaemonProcess daemon(surroundings);
  daemon.connect();
  const RealApplication application(surroundings.folder());
  ASSERT_TRUE(eventually([&] { return application.isComplete(); }));
  const std::vector<int> pids = application.pids();
  const auto quit = [] {
    const char* const arguments[] = {"quenzel", "daemon", "quit", "quitme", "--json"};
    std::istringstream in;
    std::ostringstream out;
    const int status = runCommandLine(5, arguments, {in, out, out});
    return std::pair(status, out.str());
  };
  const auto [status, output] = quit();
  EXPECT_EQ(status, exitSuccess);
  EXPECT_EQ(nlohmann::json::parse(output),
            nlohmann::json::parse(fmt::format(
                R"({{"application": "Quitme", "protectedPIDs": [], "outcomes": [
                    {{"pid": {}, "name": "Quitme", "success": true}}, {{"pid": {}, "name": "Agent", "success": true}},
                    {{"pid": {}, "name": "sleep", "success": true}}]}})",
                pids[0], pids[2], pids[1])));
  for (const int pid : pids) EXPECT_NE(::kill(pid, 0), 0);
  EXPECT_EQ(quit(), std::pair(exitFailure, std::string("quenzel: no application \"quitme\" is running\n")));
}

}  // namespace
}  // namespace quenzel
