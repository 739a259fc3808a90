#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quenzel::platform {

// Which systemd unit a process belongs to, from the text of /proc/<pid>/cgroup (cgroups(7)): lines of
// "hierarchy:controllers:path", where the hierarchy "0::" is version 2 and "name=systemd" systemd's own of
// version 1.

/// The process's folder in the hierarchy that systemd arranges, such as
/// "/user.slice/user-1000.slice/session-2.scope"; "/" when it is in none.
std::string_view controlGroupPath(std::string_view cgroup);

/// The innermost service or scope on the path; none when there is none. Folders that a service makes inside
/// its own belong to it.
std::optional<std::string_view> controlGroupUnit(std::string_view path);

/// How a unit identifies what runs in it: the application identifier in units named after the convention for
/// desktop environments (https://systemd.io/DESKTOP_ENVIRONMENTS),
/// "app[-<launcher>]-<ApplicationID>[-<RANDOM>].scope" or
/// "app[-<launcher>]-<ApplicationID>[@<RANDOM>].service", its \xNN escapes undone; the unit's own name
/// without ".service" for every other service; none for every other scope.
std::optional<std::string> applicationIdentifier(std::string_view unit);

}  // namespace quenzel::platform
