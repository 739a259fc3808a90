#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>

#include "Platform/Trimmed.hpp"

namespace quenzel::platform {

// The small text files in which Linux shows its state (proc(5), sysfs(5)). Absent means: not there, not
// permitted, refused by the driver, or not of the asked form. Thread-safe.

/// The integer that the whole text is; none for anything around it and for numbers outside T.
template <typename T>
std::optional<T> parseInteger(std::string_view text) {
  T number{};
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end && !text.empty() ? std::optional<T>(number) : std::nullopt;
}

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
