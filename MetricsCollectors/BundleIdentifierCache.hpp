#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "Base/Mutex.hpp"

namespace quenzel {

/// Remembers for the life of the process which identifier the bundle at a path declares, or that it declares
/// none. Thread-safe: one lock, not held while a bundle is read.
class BundleIdentifierCache {
 public:
  using Reader = std::function<std::optional<std::string>(const std::string& bundlePath)>;

  explicit BundleIdentifierCache(Reader reader) : reader_(std::move(reader)) {}

  std::optional<std::string> bundleIdentifier(const std::string& bundlePath);

 private:
  const Reader reader_;
  Mutex lock_;
  std::map<std::string, std::optional<std::string>> byBundlePath_ GUARDED_BY(lock_);
};

}  // namespace quenzel
