#pragma once

#include <string>

namespace quenzel::platform {

// Where the Linux adapters and stand-in tools look. Each is read from the environment at every call; an empty
// value counts as unset. No trailing slash. Thread-safe.

/// QZL_SYSFS_ROOT, else "/sys".
std::string sysfsRoot();

/// QZL_PROCFS_ROOT, else "/proc".
std::string procfsRoot();

/// Whether the user asked for missing hardware to be modelled: QZL_MODEL_HARDWARE is exactly "1".
bool modelsHardware();

}  // namespace quenzel::platform
