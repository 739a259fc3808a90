#include "SharedModels/Runtime/AppConfiguration.hpp"

#include <algorithm>

#include "SharedModels/Runtime/Text.hpp"

namespace quenzel::AppConfiguration {
namespace {

using platform::BundleInformation;
using platform::PropertyDictionary;

/// The text without blanks around it; none when nothing is left.
std::optional<std::string> nonBlank(std::optional<std::string> text) {
  if (!text) return std::nullopt;
  const std::string_view rest = trimmed(*text);
  return rest.empty() ? std::nullopt : std::optional<std::string>(rest);
}

std::optional<std::string> infoString(const PropertyDictionary* info, std::string_view key) {
  const auto* entry = info ? platform::find(*info, key) : nullptr;
  const auto* text = entry ? entry->as<std::string>() : nullptr;
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

std::optional<std::string> environmentText(const std::map<std::string, std::string>& environment,
                                           std::string_view key) {
  const auto entry = environment.find(std::string(key));
  return entry == environment.end() ? std::nullopt : std::optional<std::string>(entry->second);
}

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

/// Whether the text is an absolute URL with a host, in the characters of RFC 3986 (section 2 and appendix B).
bool isURL(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 || !isLetter(text.front())) return false;
  const std::string_view scheme = text.substr(0, colon);
  const bool schemeFits = std::all_of(scheme.begin(), scheme.end(), [](char c) {
    return isLetter(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
  });
  if (!schemeFits || text.substr(colon, 3) != "://") return false;
  const std::string_view rest = text.substr(colon + 3);
  if (rest.find_first_of("/?#") == 0 || rest.empty()) return false;
  for (std::size_t index = 0; index < rest.size(); ++index) {
    const char c = rest[index];
    if (c == '%') {
      if (index + 2 >= rest.size() || !isHexDigit(rest[index + 1]) || !isHexDigit(rest[index + 2]))
        return false;
    } else if (!isLetter(c) && !isDigit(c) &&
               std::string_view("-._~:/?#[]@!$&'()*+,;=").find(c) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string bundleIdentifierPrefix(const BundleInformation& bundle) {
  if (auto prefix = nonBlank(infoString(bundle.infoDictionary(), bundleIdentifierPrefixInfoKey)))
    return *prefix;
  return appBundleIdentifier(bundle);
}

std::string appBundleIdentifier(const BundleInformation& bundle) {
  return nonBlank(bundle.bundleIdentifier()).value_or(std::string(defaultBundleIdentifierPrefix));
}

std::string daemonBundleIdentifier(const BundleInformation& bundle) {
  if (auto label = nonBlank(infoString(bundle.infoDictionary(), daemonLabelInfoKey))) return *label;
  return bundleIdentifierPrefix(bundle) + ".metricsd";
}

std::string daemonPlistName(const BundleInformation& bundle) {
  return daemonBundleIdentifier(bundle) + ".plist";
}

namespace Updates {

const std::string& defaultFeedURL() {
  static const std::string url = QUENZEL_UPDATE_FEED_URL;
  return url;
}

std::string feedURL(const std::map<std::string, std::string>& environment,
                    const PropertyDictionary* bundleInfo) {
  auto feed = environmentText(environment, feedURLEnvironmentKey);
  if (!feed) feed = infoString(bundleInfo, sparkleFeedURLInfoKey);
  return feed && isURL(*feed) ? *feed : defaultFeedURL();
}

std::optional<std::string> publicEDKey(const std::map<std::string, std::string>& environment,
                                       const PropertyDictionary* bundleInfo) {
  auto key = environmentText(environment, publicEDKeyEnvironmentKey);
  if (!key) key = infoString(bundleInfo, sparklePublicEDKeyInfoKey);
  return nonBlank(std::move(key));
}

}  // namespace Updates

namespace Logging {

std::string subsystem(const BundleInformation& bundle) { return bundleIdentifierPrefix(bundle) + ".runtime"; }

}  // namespace Logging
}  // namespace quenzel::AppConfiguration
