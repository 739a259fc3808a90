#import <Foundation/Foundation.h>

#include "Platform/Darwin/FoundationText.hpp"
#include "Platform/SystemNotifications.hpp"

namespace quenzel::platform {

void postSystemNotification(const std::string& name, const std::map<std::string, std::string>& userInfo) {
  @autoreleasepool {
    NSMutableDictionary<NSString*, NSString*>* const entries = [NSMutableDictionary dictionary];
    for (const auto& [key, value] : userInfo) entries[foundationText(key)] = foundationText(value);
    [NSNotificationCenter.defaultCenter postNotificationName:foundationText(name)
                                                      object:nil
                                                    userInfo:entries];
  }
}

}  // namespace quenzel::platform
