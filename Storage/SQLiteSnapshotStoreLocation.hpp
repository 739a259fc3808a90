#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Platform/ApplicationSupport.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"

namespace quenzel {

/// No place for a database of the user's own.
class SQLiteSnapshotStoreLocationError final : public std::runtime_error {
 public:
  enum class Kind { missingApplicationSupportDirectory };

  static SQLiteSnapshotStoreLocationError missingApplicationSupportDirectory();

  Kind kind() const noexcept { return kind_; }

 private:
  SQLiteSnapshotStoreLocationError(Kind kind, const std::string& message)
      : std::runtime_error(message), kind_(kind) {}

  Kind kind_;
};

/// Where the snapshot history lives.
namespace SQLiteSnapshotStoreLocation {
inline constexpr std::string_view directoryName = AppConfiguration::dataDirectoryName;
inline constexpr std::string_view databaseFileName = "battery_history.sqlite";

/// "<shared directory>/Quenzel/battery_history.sqlite", the history that application and daemon share.
std::string sharedSnapshotDatabaseURL();

/// "<the user's Application Support folder>/Quenzel/battery_history.sqlite", a history of the user's own.
/// @param applicationSupportDirectory the system's answer, if it has one
/// @throws SQLiteSnapshotStoreLocationError when it has none
std::string localAppDatabaseURL(
    const std::optional<std::string>& applicationSupportDirectory = platform::applicationSupportDirectory());

/// The history that recorder and readers take when nobody names one: the shared one where it is there or the
/// user can make it, else the user's own. So an ordinary user of a machine without a shared directory records
/// into, and reads from, his own data folder. The shared one for a user who has no such folder.
std::string defaultDatabaseURL();
}  // namespace SQLiteSnapshotStoreLocation

}  // namespace quenzel
