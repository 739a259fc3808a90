#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/ThisProcess.hpp"

namespace quenzel {

/// The files of one database, in a folder that others may be able to write. Whoever can may put anything in
/// the place of a file: a link to somebody else's, a second name of it, a FIFO on which an opening waits for
/// ever. So the database and what SQLite keeps beside it (the journal, the write-ahead log and its index) are
/// used only while each is a regular file with one hard link, or absent. Who owns them says nothing: every
/// user of a shared history makes some of them.
class DatabaseFiles {
 public:
  /// Resolves the folder of the path. Symbolic links on the way are followed where they are root's or the
  /// user's own, as /tmp is on macOS: nobody else may decide where a database is made.
  /// @throws SnapshotStoreError for another one's link, and for a path that leads nowhere
  explicit DatabaseFiles(const std::string& path, std::uint32_t userID = platform::effectiveUserID());

  /// The absolute path without any symbolic link in its folder, as far as that exists.
  const std::string& path() const { return path_; }

  /// Whether a path is the database's or one of the files beside it.
  bool contains(std::string_view path) const;

  /// @throws SnapshotStoreError naming what stands in the place of a file; a folder is left to SQLite
  void requirePlainFiles() const;

  /// Whether there is a regular file with one hard link, or nothing.
  static bool isPlainOrAbsent(const std::string& path);

 private:
  std::string path_;
};

}  // namespace quenzel
