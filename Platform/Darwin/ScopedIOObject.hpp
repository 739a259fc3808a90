#pragma once

#include <IOKit/IOKitLib.h>

#include "Base/ScopedResource.hpp"

namespace quenzel::platform {

/// A handle of the I/O registry. Connections are not such handles: they are closed.
using ScopedIOObject = ScopedResource<io_object_t, IOObjectRelease, IO_OBJECT_NULL>;

/// The first registered service of that class, if there is one.
inline ScopedIOObject findIOService(const char* className) {
  // The search takes over the reference to its dictionary.
  return ScopedIOObject(IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching(className)));
}

}  // namespace quenzel::platform
