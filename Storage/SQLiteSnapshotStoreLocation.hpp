#pragma once

#include <string>
#include <string_view>

#include "SharedModels/Runtime/AppConfiguration.hpp"

namespace quenzel {

/// Where the snapshot history lives.
namespace SQLiteSnapshotStoreLocation {
inline constexpr std::string_view directoryName = AppConfiguration::dataDirectoryName;
inline constexpr std::string_view databaseFileName = "battery_history.sqlite";

/// "<shared directory>/Quenzel/battery_history.sqlite", the history that application and daemon share.
std::string sharedSnapshotDatabaseURL();
}  // namespace SQLiteSnapshotStoreLocation

}  // namespace quenzel
