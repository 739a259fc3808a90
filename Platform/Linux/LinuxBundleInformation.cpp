#include <utility>

#include "Base/Environment.hpp"
#include "Platform/BundleInformation.hpp"
#include "Platform/Linux/LinuxPropertyListFile.hpp"

namespace quenzel::platform {
namespace {

class LinuxBundleInformation final : public BundleInformation {
 public:
  explicit LinuxBundleInformation(std::optional<PropertyDictionary> info) : info_(std::move(info)) {}

  std::optional<std::string> bundleIdentifier() const override {
    const PropertyValue* const entry = info_ ? find(*info_, "CFBundleIdentifier") : nullptr;
    const std::string* const identifier = entry ? entry->as<std::string>() : nullptr;
    return identifier ? std::optional(*identifier) : std::nullopt;
  }

  const PropertyDictionary* infoDictionary() const override { return info_ ? &*info_ : nullptr; }

 private:
  const std::optional<PropertyDictionary> info_;
};

LinuxBundleInformation bundleOfEnvironment() {
  const std::optional<std::string> path = environmentValue("QZL_INFO_PLIST");
  return LinuxBundleInformation(path && !path->empty() ? propertyListFile(*path) : std::nullopt);
}

}  // namespace

const BundleInformation& mainBundle() {
  static const LinuxBundleInformation bundle = bundleOfEnvironment();
  return bundle;
}

}  // namespace quenzel::platform
