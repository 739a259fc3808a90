#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "SharedModels/Snapshot/ProcessSample.hpp"

namespace quenzel {

/// What quitting an application comes to, as far as the list of processes tells.
struct QuitPlan {
  struct Target {
    std::int32_t pid = 0;
    std::string name = {};  ///< of its executable

    bool operator==(const Target&) const = default;
  };

  std::string application = {};                  ///< as it is shown
  bool belongsToSystem = false;                  ///< by its representative
  std::vector<Target> targets = {};              ///< in the order in which to end them
  std::vector<std::int64_t> protectedPIDs = {};  ///< of the application, but never ended from here

  bool operator==(const QuitPlan&) const = default;
};

/// Finds the application of that name, in any case: the one shown under it, else one of whose processes bears
/// it, else one with that group key. Its processes are all that are shown under it (so the children of an
/// independent application go along) and all that share its group key. Process 1, `ownPID` and its parents
/// are protected.
/// @throws CommandError when there is none, or several: then what() lists them
QuitPlan planQuit(const std::vector<ProcessSample>& running, std::string_view name, std::int64_t ownPID);

}  // namespace quenzel
