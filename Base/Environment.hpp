#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quenzel {

/// The process environment behind one lock. getenv(3) may run beside itself but not beside setenv(3), and the
/// system reads switches from the environment on any thread at any time; so every read and every change of
/// this code base goes through here and hands out copies. Thread-safe.
std::optional<std::string> environmentValue(const char* name);

/// Sets the variable, or removes it when the value is absent.
void setEnvironmentValue(const char* name, const std::optional<std::string>& value);

/// All variables at one instant.
std::map<std::string, std::string> environment();

/// The same as "NAME=value" entries in their present order, as execve(2) takes them.
std::vector<std::string> environmentEntries();

}  // namespace quenzel
