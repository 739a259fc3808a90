#include "Platform/Linux/KernelFiles.hpp"

#include <algorithm>
#include <array>
#include <cerrno>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Base/Number.hpp"
#include "Base/ScopedResource.hpp"
#include "Base/Text.hpp"

namespace quenzel::platform {
namespace {

/// Repeats a system call for as long as a signal interrupts it.
template <typename Call>
auto uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// Non-blocking, so that a FIFO put in place of a file in a shared folder can't hold its readers.
constexpr int readFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

std::optional<std::string> textOf(const FileDescriptor& file) {
  if (!file) return std::nullopt;
  std::string text;
  std::array<char, 8192> block;
  while (text.size() <= maxKernelFileBytes) {
    const ssize_t count = uninterrupted([&] { return ::read(file.get(), block.data(), block.size()); });
    if (count < 0) return std::nullopt;
    if (count == 0) return text;
    text.append(block.data(), static_cast<std::size_t>(count));
  }
  return std::nullopt;
}

using FolderHandle = ScopedResource<DIR*, ::closedir>;

}  // namespace

std::string_view nextPiece(std::string_view& text, char separator) {
  const std::size_t end = std::min(text.find(separator), text.size());
  const std::string_view piece = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return piece;
}

std::optional<std::string> fileText(const std::string& path, int directory) {
  return textOf(FileDescriptor(uninterrupted([&] { return ::openat(directory, path.c_str(), readFlags); })));
}

std::optional<std::string> regularFileText(const std::string& path) {
  // An O_PATH descriptor names the file without opening it; proc(5) has a link by which it is then opened.
  const FileDescriptor named(uninterrupted([&] { return ::open(path.c_str(), O_PATH | O_CLOEXEC); }));
  struct stat status {};
  if (!named || ::fstat(named.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return fileText("/proc/self/fd/" + std::to_string(named.get()));
}

std::optional<std::string> fileValue(const std::string& path) {
  const std::optional<std::string> text = fileText(path);
  const std::string_view value = text ? trimmedASCII(*text) : std::string_view();
  return value.empty() ? std::nullopt : std::optional<std::string>(value);
}

std::optional<std::int64_t> fileInteger(const std::string& path) {
  const std::optional<std::string> value = fileValue(path);
  return value ? parseInteger<std::int64_t>(*value) : std::nullopt;
}

int writeFileValue(const std::string& path, std::string_view value) {
  const FileDescriptor file(
      uninterrupted([&] { return ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOCTTY); }));
  if (!file) return errno;
  // One write: sysfs takes each write(2) as a whole new value.
  const ssize_t count = uninterrupted([&] { return ::write(file.get(), value.data(), value.size()); });
  if (count < 0) return errno;
  return static_cast<std::size_t>(count) == value.size() ? 0 : EIO;
}

std::vector<std::string> folderEntries(const std::string& path) {
  std::vector<std::string> names;
  const FolderHandle folder(::opendir(path.c_str()));
  if (!folder) return names;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace quenzel::platform
