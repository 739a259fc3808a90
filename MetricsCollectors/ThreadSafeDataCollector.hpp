#pragma once

#include <string>
#include <string_view>

#include "Base/Mutex.hpp"

namespace quenzel {

/// What one stream of a child has delivered so far. Whoever reads or takes `data` holds `lock`.
struct ThreadSafeDataCollector {
  /// Thread-safe; an empty chunk changes nothing.
  void append(std::string_view bytes) {
    const MutexLock guard(lock);
    data.append(bytes);
  }

  Mutex lock;
  std::string data GUARDED_BY(lock);
};

}  // namespace quenzel
