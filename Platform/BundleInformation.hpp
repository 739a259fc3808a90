#pragma once

#include <optional>
#include <string>

#include "Platform/PropertyValue.hpp"

namespace quenzel::platform {

/// What a program's bundle says of itself. Immutable after creation; share freely.
class BundleInformation {
 public:
  virtual ~BundleInformation() = default;

  /// The bundle identifier as declared; none when there is no bundle or it declares none.
  virtual std::optional<std::string> bundleIdentifier() const = 0;

  /// The Info.plist entries; null when there is no Info.plist.
  virtual const PropertyDictionary* infoDictionary() const = 0;
};

/// The bundle of this process, read once. Linux: the property list named by QZL_INFO_PLIST at the first call.
const BundleInformation& mainBundle();

}  // namespace quenzel::platform
