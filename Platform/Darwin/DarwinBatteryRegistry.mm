#include <utility>

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/ps/IOPowerSources.h>

#include "Platform/BatteryRegistry.hpp"
#include "Platform/Darwin/PropertyConversion.hpp"
#include "Platform/Darwin/ScopedCFReference.hpp"
#include "Platform/Darwin/ScopedIOObject.hpp"

namespace quenzel::platform {
namespace {

bool isInternalBattery(const PropertyDictionary& description) {
  const PropertyValue* const type = find(description, "Type");
  return type && *type == PropertyValue("InternalBattery");
}

std::optional<PropertyValue> propertyOf(const ScopedIOObject& service, const char* name) {
  const ScopedCFReference<CFStringRef> key{
      CFStringCreateWithCString(kCFAllocatorDefault, name, kCFStringEncodingUTF8)};
  if (!key) return std::nullopt;
  const ScopedCFReference<CFTypeRef> value{
      IORegistryEntryCreateCFProperty(service.get(), key.get(), kCFAllocatorDefault, 0)};
  return propertyValueOf(value.get());
}

class DarwinBatteryRegistry final : public BatteryRegistry {
 public:
  std::optional<PropertyDictionary> batteryProperties() override {
    @autoreleasepool {
      const ScopedIOObject service = findIOService("AppleSmartBattery");
      if (!service) return std::nullopt;
      PropertyDictionary properties;
      for (const char* name : batteryPropertyNames) {
        if (auto value = propertyOf(service, name)) properties.emplace(name, std::move(*value));
      }
      return properties;
    }
  }

  /// An uninterruptible supply may stand before the battery in the list.
  std::optional<PropertyDictionary> internalBatteryDescription() override {
    @autoreleasepool {
      const ScopedCFReference<CFTypeRef> sources{IOPSCopyPowerSourcesInfo()};
      if (!sources) return std::nullopt;
      const ScopedCFReference<CFArrayRef> list{IOPSCopyPowerSourcesList(sources.get())};
      for (CFIndex i = 0; list && i < CFArrayGetCount(list.get()); ++i) {
        const void* const source = CFArrayGetValueAtIndex(list.get(), i);
        auto description = propertyDictionaryOf(IOPSGetPowerSourceDescription(sources.get(), source));
        if (description && isInternalBattery(*description)) return description;
      }
      return std::nullopt;
    }
  }

  std::optional<PropertyDictionary> externalAdapterDetails() override {
    @autoreleasepool {
      const ScopedCFReference<CFDictionaryRef> details{IOPSCopyExternalPowerAdapterDetails()};
      return propertyDictionaryOf(details.get());
    }
  }
};

}  // namespace

std::unique_ptr<BatteryRegistry> makeBatteryRegistry() { return std::make_unique<DarwinBatteryRegistry>(); }

}  // namespace quenzel::platform
