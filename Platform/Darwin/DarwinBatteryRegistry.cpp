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

class DarwinBatteryRegistry final : public BatteryRegistry {
 public:
  std::optional<PropertyDictionary> batteryProperties() override {
    const ScopedIOObject service = findIOService("AppleSmartBattery");
    if (!service) return std::nullopt;
    ScopedCFReference<CFMutableDictionaryRef> properties;
    if (IORegistryEntryCreateCFProperties(service.get(), &properties.reference, kCFAllocatorDefault, 0) !=
        KERN_SUCCESS) {
      return std::nullopt;
    }
    return propertyDictionaryOf(properties.get());
  }

  /// An uninterruptible supply may stand before the battery in the list.
  std::optional<PropertyDictionary> internalBatteryDescription() override {
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

  std::optional<PropertyDictionary> externalAdapterDetails() override {
    const ScopedCFReference<CFDictionaryRef> details{IOPSCopyExternalPowerAdapterDetails()};
    return propertyDictionaryOf(details.get());
  }
};

}  // namespace

std::unique_ptr<BatteryRegistry> makeBatteryRegistry() { return std::make_unique<DarwinBatteryRegistry>(); }

}  // namespace quenzel::platform
