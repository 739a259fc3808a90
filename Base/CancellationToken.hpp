#pragma once

#include <atomic>
#include <memory>

namespace quenzel {

/// Tells a computation that nobody waits for its result any more. Copies share one state; any thread may
/// cancel, and a check costs one relaxed load. What was built after a cancellation is to be thrown away.
class CancellationToken {
 public:
  void cancel() const noexcept { cancelled_->store(true, std::memory_order_relaxed); }
  bool isCancelled() const noexcept { return cancelled_->load(std::memory_order_relaxed); }

 private:
  std::shared_ptr<std::atomic<bool>> cancelled_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace quenzel
