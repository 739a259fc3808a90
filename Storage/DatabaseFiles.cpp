#include "Storage/DatabaseFiles.hpp"

#include <filesystem>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "Platform/FileStatus.hpp"
#include "Storage/SnapshotStoreError.hpp"

namespace quenzel {
namespace {

namespace fs = std::filesystem;
using Kind = platform::FileStatus::Kind;

constexpr const char* suffixes[] = {"", "-journal", "-wal", "-shm"};

/// What is wrong with a file; null for a regular one with one hard link, and for none.
const char* flawOf(const std::string& path) {
  const auto status = platform::fileStatus(path);
  if (!status) return nullptr;
  if (status->kind == Kind::symbolicLink) return "Symbolic links are refused";
  if (status->kind != Kind::regular) return "Not a regular file";
  return status->hardLinks > 1 ? "Files with a second hard link are refused" : nullptr;
}

/// Where a link leads; empty for anything else.
fs::path targetOf(const fs::path& path, std::uint32_t userID) {
  const auto status = platform::fileStatus(path);
  if (!status || status->kind != Kind::symbolicLink) return {};
  if (status->ownerID != 0 && status->ownerID != userID)
    throw SnapshotStoreError::withMessage(
        fmt::format("The symbolic link {} of another user is not followed", path.string()));
  std::error_code failure;  // gone meanwhile, and so is nowhere
  return fs::read_symlink(path, failure);
}

/// The path of a folder with every link replaced by where it leads.
fs::path resolved(const fs::path& folder, std::uint32_t userID) {
  constexpr int mostLinks = 40;  // as of Linux
  std::vector<fs::path> pending;
  const auto push = [&](const fs::path& path) {
    const std::vector<fs::path> parts(path.begin(), path.end());
    pending.insert(pending.end(), parts.rbegin(), parts.rend());
  };
  push(folder);
  fs::path path;
  for (int links = 0; !pending.empty();) {
    const fs::path part = pending.back();
    pending.pop_back();
    if (part == "..") {
      path = path.parent_path();
    } else if (!part.empty() && part != ".") {
      const fs::path target = targetOf(path / part, userID);
      if (target.empty()) {
        path /= part;
      } else if (++links > mostLinks) {
        throw SnapshotStoreError::withMessage("Too many symbolic links");
      } else {
        push(target);  // an absolute one begins with "/", which starts the path afresh
      }
    }
  }
  return path;
}

}  // namespace

DatabaseFiles::DatabaseFiles(const std::string& path, std::uint32_t userID) {
  std::error_code failure;
  const fs::path absolute = fs::absolute(path, failure);
  if (failure) throw SnapshotStoreError::withMessage(failure.message());
  path_ = resolved(absolute.parent_path(), userID) / absolute.filename();
}

bool DatabaseFiles::contains(std::string_view path) const {
  for (const std::string_view suffix : suffixes) {
    if (path.ends_with(suffix) && path.substr(0, path.size() - suffix.size()) == path_) return true;
  }
  return false;
}

void DatabaseFiles::requirePlainFiles() const {
  for (const std::string_view suffix : suffixes) {
    const std::string file = path_ + std::string(suffix);
    std::error_code failure;
    if (suffix.empty() && fs::is_directory(fs::symlink_status(file, failure))) continue;
    const char* const flaw = flawOf(file);
    if (flaw == nullptr) continue;
    throw SnapshotStoreError::withMessage(suffix.empty() ? flaw : fmt::format("{}: {}", flaw, file));
  }
}

bool DatabaseFiles::isPlainOrAbsent(const std::string& path) { return flawOf(path) == nullptr; }

}  // namespace quenzel
