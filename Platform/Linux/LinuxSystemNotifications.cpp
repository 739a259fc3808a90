#include "Platform/SystemNotifications.hpp"

namespace quenzel::platform {

void postSystemNotification(const std::string&, const std::map<std::string, std::string>&) {}

}  // namespace quenzel::platform
