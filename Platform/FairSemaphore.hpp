#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>

#include "Base/Mutex.hpp"

namespace quenzel::platform {

/// A counting semaphore that serves its waiters in the order in which they came, and that none waits for
/// longer than it says. Thread-safe; a waiting thread sleeps until it is called. Outlives its places.
class FairSemaphore {
  struct Release {
    void operator()(FairSemaphore* semaphore) const { semaphore->release(); }
  };

 public:
  /// One of the places, given back at the end of its scope; null for none.
  using Place = std::unique_ptr<FairSemaphore, Release>;

  explicit FairSemaphore(std::size_t places) : free_(places) {}

  /// Null when no place was to be had within that time.
  Place acquire(std::chrono::milliseconds longestWait);

  /// How many threads wait at this moment.
  std::size_t waiting() const;

 private:
  struct Waiter {
    std::condition_variable_any wake;
    bool called = false;  ///< a place was handed over
  };

  void release();

  mutable Mutex lock_;
  std::size_t free_ GUARDED_BY(lock_);            ///< 0 while anybody waits
  std::list<Waiter*> waiters_ GUARDED_BY(lock_);  ///< the one that came first in front
};

}  // namespace quenzel::platform
