#pragma once

#include <CoreFoundation/CoreFoundation.h>

namespace quenzel::platform {

/// Takes a type's copies away.
struct Uncopied {
  Uncopied() = default;
  Uncopied(const Uncopied&) = delete;
  Uncopied& operator=(const Uncopied&) = delete;
};

/// Owns the reference that a function with Create or Copy in its name hands out, and releases it; null is
/// "none". What a Get function returns belongs to its owner and is never put in here.
///
/// An aggregate, made as `ScopedCFReference<T>{copySomething()}`: the static analyzer, which knows by the
/// names of functions who owns what, follows a reference into a member but not through a constructor.
template <typename Reference>
struct ScopedCFReference {
  Reference reference = nullptr;
  Uncopied uncopied{};

  ~ScopedCFReference() {
    if (reference) CFRelease(reference);
  }

  Reference get() const noexcept { return reference; }
  explicit operator bool() const noexcept { return reference != nullptr; }
};

}  // namespace quenzel::platform
