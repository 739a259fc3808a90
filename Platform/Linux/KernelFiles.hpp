#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>

namespace quenzel::platform {

// The small text files in which Linux shows its state (proc(5), sysfs(5)). Absent means: not there, not
// permitted, refused by the driver, or not of the asked form. Thread-safe.

/// The first piece of the text up to the separator; the text loses both.
std::string_view nextPiece(std::string_view& text, char separator);

/// Files longer than this count as unreadable.
inline constexpr std::size_t maxKernelFileBytes = std::size_t{16} << 20;

/// The whole file. A relative path starts at the given open folder.
std::optional<std::string> fileText(const std::string& path, int directory = AT_FDCWD);

/// The whole file, from a place where other users may write: whatever the path leads to, only a regular file
/// is opened. A device may act on being opened.
std::optional<std::string> regularFileText(const std::string& path);

/// The file's one value, trimmed; none when it is blank.
std::optional<std::string> fileValue(const std::string& path);

std::optional<std::int64_t> fileInteger(const std::string& path);

/// Replaces the file's value; returns 0 or the error number. The file is not created.
int writeFileValue(const std::string& path, std::string_view value);

/// Names in a folder in byte order, without "." and ".."; empty when it can't be read.
std::vector<std::string> folderEntries(const std::string& path);

}  // namespace quenzel::platform
