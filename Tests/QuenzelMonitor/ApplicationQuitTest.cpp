#include <csignal>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include "Engine/ApplicationQuit.hpp"
#include "Tests/QuenzelMonitor/RunQuenzel.hpp"
#include "Tests/Support/DaemonProcess.hpp"

namespace quenzel {
namespace {

/// Processes from "PID PARENT NAME [BUNDLE_ID]; ...".
std::vector<ProcessSample> processes(const std::string& text) {
  std::vector<ProcessSample> all;
  std::istringstream entries(text);
  for (std::string entry; std::getline(entries, entry, ';');) {
    std::istringstream words(entry);
    ProcessSample process;
    std::int64_t parent;
    words >> process.pid >> parent >> process.name;
    process.parentPID = parent;
    if (std::string bundleID; words >> bundleID) process.bundleID = bundleID;
    all.push_back(process);
  }
  return all;
}

/// "APPLICATION[ of the system]: PID NAME, ...[ but PROTECTED]", or why there is no plan.
std::string planned(const std::vector<ProcessSample>& running, const char* name) {
  try {
    const QuitPlan plan = planQuit(running, name, 31);
    std::string text = plan.application + (plan.belongsToSystem ? " of the system:" : ":");
    for (const auto& [pid, target] : plan.targets) text += fmt::format(" {} {}", pid, target);
    for (const std::int64_t pid : plan.protectedPIDs) text += fmt::format(" but {}", pid);
    return text;
  } catch (const ApplicationQuitError& error) {
    return error.what();
  }
}

TEST(ApplicationQuit, FindsAnApplicationWithItsHelpersAndSparesItself) {
  const std::vector<ProcessSample> running = processes(
      "1 0 /sbin/init; 10 1 /Foo.app/Contents/MacOS/Foo; 11 10 /opt/h\u00C9lper; 12 10 /usr/bin/ssh;"
      "13 10 /System/Library/Dock.app/x/panel; 14 1 panel; 20 1 /Bar.app/Contents/MacOS/Bar;"
      "21 20 /opt/h\u00C9lper; 30 0 /opt/shell; 31 30 /opt/quenzel; 32 30 /opt/shell; 40 1 /usr/bin/tool;"
      "41 1 /opt/tool; 50 1 Agent; 51 1 com.apple.Agent; 60 1 /Web.app/Contents/MacOS/Web org.w;"
      "61 60 /Web.app/Contents/x/GPU org.w.h; 62 61 /opt/pipe; 70 1 /opt/b\uFFFDd; 80 1 ide org.ide;"
      "81 80 /usr/bin/git");
  const std::pair<const char*, const char*> rows[] = {
      {" FOO ", "Foo: 10 Foo 13 panel 11 h\u00C9lper 12 ssh"},
      {"app:/bar.APP", "Bar: 20 Bar 21 h\u00C9lper"},
      {"web", "Web: 60 Web 61 GPU 62 pipe"},
      {"bundle:org.w", "Web: 60 Web"},
      {"exec:/opt/tool", "tool: 41 tool"},
      {"exec:/usr/bin/tool", "tool of the system: 40 tool"},
      {"agent", "Agent of the system: 50 Agent 51 com.apple.Agent"},
      {"ide", "ide: 80 ide 81 git"},  // though the path of the tool represents it
      {"shell", "shell: 32 shell but 30"},
      {"init", "init of the system: but 1"},
      {"b\xFF\x64", "b\uFFFDd: 70 b\uFFFDd"},
      {"H\u00E9lper", R"("Hélper" is shown under Bar, Foo; "quit NAME" ends it all)"},
      {"SSH", R"("SSH" is shown under Foo; "quit Foo" ends it all)"},
      {"panel", R"("panel" is shown under Dock; "quit Dock" ends it all)"},  // the one process of its row
      {"tool",
       R"("tool" is the name of several: exec:/opt/tool, exec:/usr/bin/tool; "quit KEY" ends one of them)"},
      {"Fo", R"(no application "Fo" is running)"}};
  for (const auto& [name, plan] : rows) EXPECT_EQ(planned(running, name), plan) << name;
}

TEST(ApplicationQuit, EndsARealApplicationThroughTheDaemon) {
  const testing::DaemonSurroundings surroundings;
  const testing::DaemonProcess daemon(surroundings);
  daemon.connect();
  const std::string application = surroundings.folder().write("Quitme.app/Contents/MacOS/Quitme", "");
  std::filesystem::copy_file("/bin/sleep", application, std::filesystem::copy_options::overwrite_existing);
  const pid_t pid = ::fork();
  if (pid == 0) ::execl(application.c_str(), application.c_str(), "1000", nullptr);
  testing::Outcome quit;
  EXPECT_TRUE(testing::eventually([&] {  // when it has become the application
    quit = testing::runQuenzel("daemon quit quitme --json");
    return quit.status == exitSuccess;
  })) << quit.err;
  EXPECT_EQ(quit.json(),
            nlohmann::json::parse(fmt::format(
                R"({{"application": "Quitme", "protectedPIDs": [], "outcomes": [{{"pid": {}, "name": "Quitme",
           "success": true, "message": "ended, but its parent has yet to collect it"}}]}})",
                pid)));
  ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  const testing::Outcome again = testing::runQuenzel("daemon quit quitme");
  EXPECT_EQ(std::tie(again.status, again.err),
            std::tuple(exitFailure, "quenzel: no application \"quitme\" is running\n"));
}

}  // namespace
}  // namespace quenzel
