#pragma once

#include <cstdint>

#include <CoreFoundation/CoreFoundation.h>

namespace quenzel::platform {

using IOReportSubscriptionRef = struct IOReportSubscription*;

/// The functions of IOReport, the kernel's telemetry channels, that reading counters takes. The library has
/// no public header; the forms are those that Apple's own published tools call. It lies in the system's
/// shared cache only, so no file says whether it is there. Create and Copy hand out a reference, Get does
/// not.
struct IOReportLibrary {
  CFMutableDictionaryRef (*copyChannelsInGroup)(CFStringRef group, CFStringRef subgroupOrNull, std::uint64_t,
                                                std::uint64_t, std::uint64_t);
  IOReportSubscriptionRef (*createSubscription)(void* allocatorOrNull, CFMutableDictionaryRef desired,
                                                CFMutableDictionaryRef* subscribed, std::uint64_t channelID,
                                                CFTypeRef optionsOrNull);
  CFDictionaryRef (*createSamples)(IOReportSubscriptionRef subscription, CFMutableDictionaryRef subscribed,
                                   CFTypeRef optionsOrNull);
  CFStringRef (*channelGetGroup)(CFDictionaryRef channel);
  CFStringRef (*channelGetChannelName)(CFDictionaryRef channel);
  CFStringRef (*channelGetUnitLabel)(CFDictionaryRef channel);
  std::int64_t (*simpleGetIntegerValue)(CFDictionaryRef channel, void* errorOrNull);

  /// The library, loaded at the first call; null when it or one of its functions is missing.
  static const IOReportLibrary* shared();
};

}  // namespace quenzel::platform
