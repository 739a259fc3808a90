#include <utility>

#import <Foundation/Foundation.h>

#include "Platform/BundleInformation.hpp"
#include "Platform/Darwin/FoundationText.hpp"
#include "Platform/Darwin/PropertyConversion.hpp"

namespace quenzel::platform {
namespace {

/// A plain executable has an Info.plist too: the one linked into it.
class DarwinBundleInformation final : public BundleInformation {
 public:
  explicit DarwinBundleInformation(NSBundle* bundle)
      : identifier_(textOf(bundle.bundleIdentifier)),
        info_(propertyDictionaryOf((__bridge CFTypeRef)bundle.infoDictionary)) {}

  std::optional<std::string> bundleIdentifier() const override { return identifier_; }
  const PropertyDictionary* infoDictionary() const override { return info_ ? &*info_ : nullptr; }

 private:
  const std::optional<std::string> identifier_;
  const std::optional<PropertyDictionary> info_;
};

}  // namespace

const BundleInformation& mainBundle() {
  @autoreleasepool {
    static const DarwinBundleInformation bundle(NSBundle.mainBundle);
    return bundle;
  }
}

}  // namespace quenzel::platform
