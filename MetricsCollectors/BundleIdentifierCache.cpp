#include "MetricsCollectors/BundleIdentifierCache.hpp"

namespace quenzel {

std::optional<std::string> BundleIdentifierCache::bundleIdentifier(const std::string& bundlePath) {
  {
    const MutexLock guard(lock_);
    const auto known = byBundlePath_.find(bundlePath);
    if (known != byBundlePath_.end()) return known->second;
  }
  std::optional<std::string> identifier = reader_(bundlePath);
  const MutexLock guard(lock_);
  byBundlePath_[bundlePath] = identifier;
  return identifier;
}

}  // namespace quenzel
