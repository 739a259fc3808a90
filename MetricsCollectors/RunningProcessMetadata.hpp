#pragma once

#include <optional>
#include <string>

namespace quenzel {

/// What is known of a running process beyond its number. At least one field is present: a process of which
/// nothing is known has no metadata at all.
struct RunningProcessMetadata {
  std::optional<std::string> executablePath;
  std::optional<std::string> bundlePath;  ///< the enclosing ".app" or ".xpc" bundle
  std::optional<std::string> bundleID;

  bool operator==(const RunningProcessMetadata&) const = default;
};

}  // namespace quenzel
