#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

// What a row shows of its process, derived from its text alone: no file and no system call is asked. A name
// is the absolute path of an executable when it begins with "/", else a bare command name. Pure functions; a
// call costs a pass or two over the text.

namespace quenzel {

/// The stored display name, unless blank, as it is; else the normalised name of the outermost application
/// bundle that the path leads through, of the last path component, or of the bare name.
std::string processDisplayName(const ProcessDrain& process);
/// The same for whoever has the processAppBundlePath already.
std::string processDisplayName(const ProcessDrain& process, const std::optional<std::string>& bundlePath);

/// A name for people: without surrounding white space, without the parentheses that ps puts around the name
/// of a process whose arguments it can't read, and of a reverse-DNS identifier only the leaf. A blank name
/// comes back as it is.
std::string normalizedDisplayName(std::string_view name);

/// "Agent" of "com.example.Agent": the last of at least three pieces, when the first is a common top-level
/// label. A view into the argument.
std::optional<std::string_view> reverseDNSLeafIdentifier(std::string_view identifier);

/// "/Applications/A.app" of anything inside it: the path down to the first component that ends in ".app" in
/// any case, without doubled slashes. So the outermost bundle wins over those nested in it.
std::optional<std::string> topLevelAppBundlePath(std::string_view path);

/// The bundle that the executable lies in; absent for a bare name.
std::optional<std::string> processAppBundlePath(const ProcessDrain& process);

/// The name when it is a path.
std::optional<std::string> processExecutablePath(const ProcessDrain& process);

/// The second line below the display name: bundle path, else executable path, else bundle identifier, else
/// the trimmed name where that says something else than the display name does.
std::optional<std::string> processSubtitleText(const ProcessDrain& process);

/// How well the record names an application, from 0 to 34: 20 for a path into an application bundle, 10 for
/// any path, 3 for a bundle identifier, 1 for a number above 0.
int processPresentationScore(const ProcessDrain& process);
/// The same for whoever has the processAppBundlePath already.
int processPresentationScore(const ProcessDrain& process, const std::optional<std::string>& bundlePath);

/// Whether it belongs to the operating system; see AppleProcessDetector.
bool isAppleSystemProcess(const ProcessDrain& process);

}  // namespace quenzel
