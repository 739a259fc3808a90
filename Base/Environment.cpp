#include "Base/Environment.hpp"

#include <cstdlib>

#include <unistd.h>

#include "Base/Mutex.hpp"

extern char** environ;

namespace quenzel {
namespace {

Mutex& environmentLock() {
  static Mutex lock;
  return lock;
}

}  // namespace

std::optional<std::string> environmentValue(const char* name) {
  const MutexLock guard(environmentLock());
  const char* value = std::getenv(name);
  return value ? std::optional<std::string>(value) : std::nullopt;
}

void setEnvironmentValue(const char* name, const std::optional<std::string>& value) {
  const MutexLock guard(environmentLock());
  if (value) {
    ::setenv(name, value->c_str(), 1);
  } else {
    ::unsetenv(name);
  }
}

std::vector<std::string> environmentEntries() {
  const MutexLock guard(environmentLock());
  std::vector<std::string> entries;
  for (char** entry = environ; entry && *entry; ++entry) entries.emplace_back(*entry);
  return entries;
}

std::map<std::string, std::string> environment() {
  std::map<std::string, std::string> variables;
  for (const std::string& entry : environmentEntries()) {
    const std::size_t equals = entry.find('=');
    if (equals != std::string::npos) variables.emplace(entry.substr(0, equals), entry.substr(equals + 1));
  }
  return variables;
}

}  // namespace quenzel
