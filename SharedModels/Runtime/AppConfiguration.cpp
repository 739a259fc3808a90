#include "SharedModels/Runtime/AppConfiguration.hpp"

#include <algorithm>

#include "Base/Text.hpp"

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
  return text ? std::optional(repairedUTF8(*text)) : std::nullopt;
}

std::optional<std::string> environmentText(const std::map<std::string, std::string>& environment,
                                           std::string_view key) {
  const auto entry = environment.find(std::string(key));
  return entry == environment.end() ? std::nullopt : std::optional<std::string>(entry->second);
}

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

bool isURLCharacter(char c) {
  return isLetter(c) || isDigit(c) ||
         std::string_view("-._~:/?#[]@!$&'()*+,;=%").find(c) != std::string_view::npos;
}

/// Whether every "%" begins an escape of two hexadecimal digits.
bool escapesFit(std::string_view text) {
  for (std::size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 1)) {
    if (at + 2 >= text.size() || !isHexDigit(text[at + 1]) || !isHexDigit(text[at + 2])) return false;
  }
  return true;
}

/// Whether the authority names a host, with digits alone for its port.
bool namesHost(std::string_view authority) {
  const std::size_t user = authority.rfind('@');
  if (user != std::string_view::npos) authority.remove_prefix(user + 1);
  const std::size_t literalEnd = authority.starts_with('[') ? authority.find(']') : 0;
  if (literalEnd == std::string_view::npos) return false;
  const std::size_t colon = authority.find(':', literalEnd);
  const std::string_view host = authority.substr(0, colon);
  const std::string_view port =
      colon == std::string_view::npos ? std::string_view() : authority.substr(colon + 1);
  return !host.empty() && std::all_of(port.begin(), port.end(), isDigit);
}

/// Whether the text is an absolute URL with a host (RFC 3986, section 3).
bool isURL(std::string_view text) {
  const std::size_t colon = text.find("://");
  if (colon == std::string_view::npos || !isLetter(text.front())) return false;
  const std::string_view scheme = text.substr(0, colon);
  const bool schemeFits = std::all_of(scheme.begin(), scheme.end(), [](char c) {
    return isLetter(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
  });
  const std::string_view rest = text.substr(colon + 3);
  return schemeFits && namesHost(rest.substr(0, rest.find_first_of("/?#"))) &&
         std::all_of(rest.begin(), rest.end(), isURLCharacter) && escapesFit(rest) &&
         std::count(rest.begin(), rest.end(), '#') <= 1;
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
