#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/BundleInformation.hpp"

namespace quenzel {

/// The product's names, fixed when it is compiled.
namespace ProductConfiguration {
inline constexpr std::string_view bundleName = "Quenzel";
inline constexpr std::string_view appName = bundleName;
inline constexpr std::string_view executableName = bundleName;
inline constexpr std::string_view dataDirectoryName = bundleName;
inline constexpr std::string_view releaseArtifactName = bundleName;
inline constexpr std::string_view bundleIdentifierPrefix = "com.quenzel";
inline constexpr std::string_view daemonName = "QuenzelDaemon";
inline constexpr std::string_view websiteSlug = "quenzel";
}  // namespace ProductConfiguration

/// The names that a build may override in its Info.plist. Each is resolved when it is asked for; none fails.
/// Thread-safe. A parameter `bundle` stands in for the main bundle.
namespace AppConfiguration {
inline constexpr std::string_view dataDirectoryName = ProductConfiguration::dataDirectoryName;
inline constexpr std::string_view appName = dataDirectoryName;
inline constexpr std::string_view bundleIdentifierPrefixInfoKey = "QZLBundleIdentifierPrefix";
inline constexpr std::string_view daemonLabelInfoKey = "QZLDaemonLabel";
inline constexpr std::string_view defaultBundleIdentifierPrefix =
    ProductConfiguration::bundleIdentifierPrefix;

/// The Info.plist's prefix, else the bundle's identifier, else "com.quenzel"; blank ones are passed over.
std::string bundleIdentifierPrefix(const platform::BundleInformation& bundle = platform::mainBundle());
std::string appBundleIdentifier(const platform::BundleInformation& bundle = platform::mainBundle());
/// The Info.plist's daemon label, else the prefix with ".metricsd"; also the name of the daemon's service.
std::string daemonBundleIdentifier(const platform::BundleInformation& bundle = platform::mainBundle());
std::string daemonPlistName(const platform::BundleInformation& bundle = platform::mainBundle());

namespace AppIcon {
inline constexpr std::string_view primaryResourceName = "AppIcon";
inline constexpr std::string_view primaryResourceExtension = "icns";
inline constexpr std::string_view primaryFileName = "AppIcon.icns";
inline constexpr std::string_view fallbackResourceName = "quenzel-icon";
inline constexpr std::string_view fallbackResourceExtension = "png";
}  // namespace AppIcon

/// Settings of the application's self-updater.
namespace Updates {
inline constexpr std::string_view sparkleFeedURLInfoKey = "SUFeedURL";
inline constexpr std::string_view sparklePublicEDKeyInfoKey = "SUPublicEDKey";
inline constexpr std::string_view feedURLEnvironmentKey = "QZL_UPDATE_FEED_URL";
inline constexpr std::string_view publicEDKeyEnvironmentKey = "QZL_SPARKLE_PUBLIC_ED_KEY";
inline constexpr std::string_view disableUpdaterEnvironmentKey = "QZL_DISABLE_DIRECT_DOWNLOAD_UPDATER";

/// Base URL of the release server, set when the product is built.
const std::string& defaultFeedURL();
/// The first of environment and Info.plist that sets a feed decides; one that is not a URL yields the default
/// feed.
std::string feedURL(const std::map<std::string, std::string>& environment,
                    const platform::PropertyDictionary* bundleInfo);
/// The updater's EdDSA public key as base64 text. There is no built-in key.
std::optional<std::string> publicEDKey(const std::map<std::string, std::string>& environment,
                                       const platform::PropertyDictionary* bundleInfo);
}  // namespace Updates

namespace Logging {
inline constexpr std::string_view logLevelInfoKey = "QZL_LOG_LEVEL";
/// The prefix with ".runtime".
std::string subsystem(const platform::BundleInformation& bundle = platform::mainBundle());
}  // namespace Logging
}  // namespace AppConfiguration

/// The daemon's names as the service layer calls them.
namespace BatteryServiceConstants {
inline std::string daemonServiceName() { return AppConfiguration::daemonBundleIdentifier(); }
inline std::string daemonPlistName() { return AppConfiguration::daemonPlistName(); }
}  // namespace BatteryServiceConstants

}  // namespace quenzel
