#pragma once

#include <utility>

#include <unistd.h>

namespace quenzel {

/// Owns one handle of the operating system or of a C library, and gives it back by `close` at the end of its
/// life. Move-only; for one thread at a time.
/// @tparam none the handle that is none, which is never closed
template <typename Handle, auto close, Handle none = Handle{}>
class ScopedResource {
 public:
  ScopedResource() = default;
  explicit ScopedResource(Handle handle) noexcept : handle_(handle) {}
  ScopedResource(ScopedResource&& other) noexcept : handle_(other.release()) {}
  ScopedResource& operator=(ScopedResource&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~ScopedResource() { reset(); }

  Handle get() const noexcept { return handle_; }
  explicit operator bool() const noexcept { return handle_ != none; }

  /// Hands the handle over to the caller.
  Handle release() noexcept { return std::exchange(handle_, none); }
  void reset(Handle handle = none) noexcept {
    if (handle_ != none) close(handle_);
    handle_ = handle;
  }

 private:
  Handle handle_ = none;
};

using FileDescriptor = ScopedResource<int, ::close, -1>;

}  // namespace quenzel
