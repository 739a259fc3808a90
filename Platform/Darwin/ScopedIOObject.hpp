#pragma once

#include <IOKit/IOKitLib.h>

namespace quenzel::platform {

/// Owns a handle of the I/O registry and releases it; IO_OBJECT_NULL is "none". Connections are no such
/// handles: they are closed.
class ScopedIOObject {
 public:
  explicit ScopedIOObject(io_object_t owned) noexcept : object_(owned) {}
  ScopedIOObject(const ScopedIOObject&) = delete;
  ScopedIOObject& operator=(const ScopedIOObject&) = delete;
  ~ScopedIOObject() {
    if (object_ != IO_OBJECT_NULL) IOObjectRelease(object_);
  }

  io_object_t get() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != IO_OBJECT_NULL; }

 private:
  io_object_t object_;
};

/// The first registered service of that class, if there is one.
inline ScopedIOObject findIOService(const char* className) {
  // The search takes over the reference to its dictionary.
  return ScopedIOObject(IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching(className)));
}

}  // namespace quenzel::platform
