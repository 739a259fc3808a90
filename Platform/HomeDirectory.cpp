#include "Platform/HomeDirectory.hpp"

#include <cerrno>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "Base/Environment.hpp"

namespace quenzel::platform {
namespace {

std::optional<std::string> homeInUserDatabase() {
  std::vector<char> texts(1024);
  passwd entry{};
  passwd* found = nullptr;
  int failure = 0;
  while ((failure = ::getpwuid_r(::geteuid(), &entry, texts.data(), texts.size(), &found)) != 0) {
    if (failure == ERANGE) {
      texts.resize(2 * texts.size());
    } else if (failure != EINTR) {
      return std::nullopt;
    }
  }
  return found && found->pw_dir ? std::optional<std::string>(found->pw_dir) : std::nullopt;
}

}  // namespace

std::optional<std::string> homeDirectory() {
  auto home = environmentValue("HOME");
  if (!home || !home->starts_with('/')) home = homeInUserDatabase();
  return home && home->starts_with('/') ? home : std::nullopt;
}

}  // namespace quenzel::platform
