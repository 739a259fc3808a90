#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "Base/ScopedResource.hpp"
#include "Platform/AppendFile.hpp"
#include "Platform/HomeDirectory.hpp"
#include "Platform/InstalledTools.hpp"
#include "Platform/Linux/LinuxPropertyListFile.hpp"
#include "Platform/Linux/TrustedTools.hpp"
#include "Platform/SystemLog.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

static std::vector<std::string> journalFields;

// Takes the place of the library's function of that name: what would go to the journal ends up here.
extern "C" int sd_journal_sendv(const iovec* fields, int count) {
  journalFields.clear();
  for (int i = 0; i < count; ++i)
    journalFields.emplace_back(static_cast<const char*>(fields[i].iov_base), fields[i].iov_len);
  return 0;
}

namespace quenzel::platform {
namespace {

using ::testing::ElementsAre;
using testing::TemporaryDirectory;

TEST(LinuxSystemLog, WritesItsFieldsAndNoPathOfTheBuild) {
  const std::pair<SystemLogType, const char*> rows[] = {{SystemLogType::error, "PRIORITY=3"},
                                                        {SystemLogType::info, "PRIORITY=6"},
                                                        {SystemLogType::debug, "PRIORITY=7"}};
  for (const auto& [type, priority] : rows) {
    systemLog().write("com.quenzel.runtime", "Daemon", type, "two\nlines");
    EXPECT_THAT(journalFields, ElementsAre("MESSAGE=two\nlines", priority, "SUBSYSTEM=com.quenzel.runtime",
                                           "CATEGORY=Daemon"));
  }
}

TEST(HomeDirectory, IsTheEnvironmentsElseTheUserDatabases) {
  const std::string listed = ::getpwuid(::geteuid())->pw_dir;
  const std::pair<std::optional<std::string>, std::string> rows[] = {
      {"/u", "/u"}, {"u", listed}, {{}, listed}};
  for (const auto& [home, expected] : rows) {
    const testing::ScopedEnvironment environment({{"HOME", home}});
    EXPECT_EQ(homeDirectory(), expected);
  }
}

TEST(PropertyListFile, OpensRegularFilesOnly) {
  const TemporaryDirectory folder;
  const std::string list =
      folder.write("list", "<plist version=\"1.0\"><dict><key>a</key><true/></dict></plist>");
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& target : {list, fifo})
    std::filesystem::create_symlink(target, folder / (target == list ? "good" : "bad"));
  EXPECT_TRUE(propertyListFile(folder / "good").has_value());
  for (const std::string& path : {fifo, folder / "bad", folder.path().string(), folder / "missing"})
    EXPECT_FALSE(propertyListFile(path).has_value()) << path;
  folder.write("list", std::string(17 << 20, ' '));
  EXPECT_FALSE(propertyListFile(list).has_value());
}

TEST(InstalledTools, MustBeBeyondTheReachOfOthers) {
  const uid_t self = ::geteuid();
  constexpr uid_t root = 0;
  // The place, what is changed below the prefix, its mode and owner, and whether the tools are trusted.
  const std::tuple<const char*, const char*, mode_t, uid_t, bool> rows[] = {
      {"libexec/quenzel/tools", "", 0755, self, true},
      {"tools", "", 0755, self, true},
      {"other", "", 0755, self, false},
      {"tools", "tools/usr/bin/pmset", 0757, self, false},
      {"tools", "tools/usr", 0757, self, false},
      {"tools", "tools", 01777, self, false},
      {"tools", "", 0757, self, false},
      {"libexec/quenzel/tools", "libexec", 0757, self, false},
      {"tools", "tools/usr", 0775, self, self != root},
      {"tools", "tools/usr", 0775, 12345, self == root},
      {"tools", "", 0755, 12345, self == root},
      {"tools", "", 0755, root, self == root}};
  for (const auto& [place, changed, mode, user, trusted] : rows) {
    const TemporaryDirectory folder;
    folder.write(std::string(place) + "/usr/bin/pmset", "");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path()))
      ::chmod(entry.path().c_str(), 0755);
    ::chmod((folder / changed).c_str(), mode);
    EXPECT_EQ(trustedToolRoot(folder.path(), user), trusted ? std::optional(folder / place) : std::nullopt)
        << place << " " << changed << " " << mode << " " << user;
  }
  const TemporaryDirectory folder;
  const std::string tool = folder.write("pmset", "");
  folder.write("tools/usr/bin/ioreg", "");
  std::filesystem::create_symlink(tool, folder / "tools/usr/bin/pmset");
  EXPECT_EQ(trustedToolRoot(folder.path(), self), std::nullopt);
  const std::filesystem::path installed(QUENZEL_TOOL_DIRECTORY);
  EXPECT_EQ(installedToolRoot(), trustedToolRoot(installed.parent_path(), self));
}

TEST(AppendFile, AddsToRegularFilesOfOneNameOnly) {
  const TemporaryDirectory folder;
  const std::string file = folder.write("file", "first ");
  EXPECT_EQ(appendToFile(file, "second", 0600), 0);
  EXPECT_EQ(folder.read("file"), "first second");
  EXPECT_EQ(appendToFile(folder / "new", "x", 0604), 0);
  EXPECT_EQ(testing::modeOf(folder / "new"), 0604u);

  std::filesystem::create_hard_link(file, folder / "second name");
  std::filesystem::create_symlink(file, folder / "link");
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  const FileDescriptor reader(::open((folder / "fifo").c_str(), O_RDONLY | O_NONBLOCK));
  const std::pair<const char*, int> rows[] = {
      {"second name", EPERM}, {"link", ELOOP}, {"fifo", EPERM}, {"none/file", ENOENT}};
  for (const auto& [name, error] : rows) EXPECT_EQ(appendToFile(folder / name, "y", 0600), error) << name;
  EXPECT_EQ(folder.read("file"), "first second");
}

}  // namespace
}  // namespace quenzel::platform
