#include "Platform/FairSemaphore.hpp"

namespace quenzel::platform {

FairSemaphore::Place FairSemaphore::acquire(std::chrono::milliseconds longestWait) {
  const auto deadline = std::chrono::steady_clock::now() + longestWait;
  const MutexLock guard(lock_);
  if (free_ > 0) {
    --free_;
    return Place(this);
  }
  Waiter self;
  const auto queued = waiters_.insert(waiters_.end(), &self);
  while (!self.called) {
    if (self.wake.wait_until(lock_, deadline) == std::cv_status::timeout && !self.called) {
      waiters_.erase(queued);
      return nullptr;
    }
  }
  return Place(this);
}

std::size_t FairSemaphore::waiting() const {
  const MutexLock guard(lock_);
  return waiters_.size();
}

void FairSemaphore::release() {
  const MutexLock guard(lock_);
  if (waiters_.empty()) {
    ++free_;
    return;
  }
  // Handed over under the lock: the waiter lives on its thread's stack and is gone once it runs on.
  Waiter& next = *waiters_.front();
  waiters_.pop_front();
  next.called = true;
  next.wake.notify_one();
}

}  // namespace quenzel::platform
