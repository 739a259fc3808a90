#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Base/Mutex.hpp"

namespace quenzel {

/// Tells observers in this process of named events. Thread-safe: observers are called on the posting thread,
/// outside the lock, so one may post, log, observe or stop observing itself; it must not throw. What is
/// posted goes to the system's notification centre of this process as well, where there is one.
class NotificationCentre {
 public:
  using UserInfo = std::map<std::string, std::string>;
  using Observer = std::function<void(const UserInfo&)>;

  /// The centre of this process.
  static NotificationCentre& shared();

  /// Observes until the returned token is destroyed. A call already under way on another thread may still
  /// finish.
  [[nodiscard]] std::shared_ptr<void> observe(std::string_view name, Observer observer);

  void post(std::string_view name, const UserInfo& userInfo);

 private:
  struct Registration {
    std::string name;
    std::weak_ptr<Observer> observer;
  };

  Mutex lock_;
  std::vector<Registration> registrations_ GUARDED_BY(lock_);
};

}  // namespace quenzel
