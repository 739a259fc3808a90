#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "SharedModels/Snapshot/ProcessSample.hpp"

namespace quenzel {

/// A name that no application bears, or several do; what() says which names would do.
class ApplicationQuitError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What quitting an application comes to, as far as the list of processes tells.
struct QuitPlan {
  struct Target {
    std::int32_t pid = 0;
    std::string name = {};  ///< of its executable

    bool operator==(const Target&) const = default;
  };

  std::string application = {};                  ///< as it is shown
  bool belongsToSystem = false;                  ///< to be ended on request only
  std::vector<Target> targets = {};              ///< in the order in which to end them
  std::vector<std::int64_t> protectedPIDs = {};  ///< of the application, but never ended from here

  bool operator==(const QuitPlan&) const = default;
};

/// Finds the application of that name, in any case: the one shown under it, else the processes with that
/// group key and no others. The processes of the former are all that are shown under it (so the children of
/// an independent application go along) and all that share its group key. It belongs to the operating system
/// when its representative does, or any process of it that is neither a hosted helper nor an independent
/// application. Process 1, `ownPID` and its parents are protected.
/// @param name ill-formed UTF-8 is repaired as in the names of the processes
/// @throws ApplicationQuitError when there is none; when only helpers shown under another name bear it; or
/// when
///   several programs are shown under it that share neither group key nor bundle: then what() lists the keys
QuitPlan planQuit(const std::vector<ProcessSample>& running, std::string_view name, std::int64_t ownPID);

}  // namespace quenzel
