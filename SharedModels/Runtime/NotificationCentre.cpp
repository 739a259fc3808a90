#include "SharedModels/Runtime/NotificationCentre.hpp"

#include "Platform/SystemNotifications.hpp"

namespace quenzel {

NotificationCentre& NotificationCentre::shared() {
  static NotificationCentre centre;
  return centre;
}

std::shared_ptr<void> NotificationCentre::observe(std::string_view name, Observer observer) {
  auto token = std::make_shared<Observer>(std::move(observer));
  const MutexLock guard(lock_);
  std::erase_if(registrations_, [](const Registration& entry) { return entry.observer.expired(); });
  registrations_.push_back({std::string(name), token});
  return token;
}

void NotificationCentre::post(std::string_view name, const UserInfo& userInfo) {
  std::vector<std::shared_ptr<Observer>> observers;
  {
    const MutexLock guard(lock_);
    for (const Registration& entry : registrations_) {
      auto observer = entry.observer.lock();
      if (observer && entry.name == name) observers.push_back(std::move(observer));
    }
  }
  for (const auto& observer : observers) (*observer)(userInfo);
  platform::postSystemNotification(std::string(name), userInfo);
}

}  // namespace quenzel
