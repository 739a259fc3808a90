#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "Platform/HomeDirectory.hpp"
#include "Tests/Support/ScopedEnvironment.hpp"

namespace quenzel::platform {
namespace {

TEST(HomeDirectory, IsTheEnvironmentsElseTheUserDatabases) {
  const std::string listed = ::getpwuid(::geteuid())->pw_dir;
  const std::pair<std::optional<std::string>, std::string> rows[] = {
      {"/u", "/u"}, {"u", listed}, {{}, listed}};
  for (const auto& [home, expected] : rows) {
    const std::map<std::string, std::optional<std::string>> variables = {{"HOME", home}};
    const quenzel::testing::ScopedEnvironment environment(variables);
    EXPECT_EQ(homeDirectory(), expected);
  }
}

}  // namespace
}  // namespace quenzel::platform
