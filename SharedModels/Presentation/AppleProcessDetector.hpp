#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

/// Tells the operating system's own processes from those that the user installed: by bundle identifier, by
/// where the executable lies, and by a list of names. Pure functions.
namespace quenzel::AppleProcessDetector {

inline constexpr std::array<std::string_view, 9> systemPathPrefixes{"/usr/libexec/",
                                                                    "/usr/sbin/",
                                                                    "/usr/bin/",
                                                                    "/sbin/",
                                                                    "/System/Library/",
                                                                    "/System/iOSSupport/",
                                                                    "/System/Applications/",
                                                                    "/System/Cryptexes/",
                                                                    "/Library/Apple/"};

/// 188 names in lower case. Spaces become underscores before a name is looked up, so the two entries that
/// hold spaces are never met; they stay, as does one entry's spelling, so that the list compares equal to the
/// one that other versions of the product use.
const std::unordered_set<std::string_view>& systemProcessNames();

/// @param name a raw process name or an absolute path
/// @param displayName as shown to the user
bool isAppleSystemProcess(std::string_view name, const std::optional<std::string>& bundleID,
                          std::string_view displayName);

}  // namespace quenzel::AppleProcessDetector
