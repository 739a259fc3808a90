#pragma once

#include <map>
#include <string>

namespace quenzel::platform {

/// Posts to the notification centre that the system keeps for this process, without a sender; its observers
/// run on this thread before the call returns. Linux keeps none. Thread-safe.
void postSystemNotification(const std::string& name, const std::map<std::string, std::string>& userInfo);

}  // namespace quenzel::platform
