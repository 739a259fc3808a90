#include "SharedModels/Presentation/ProcessDrainPresentation.hpp"

#include <algorithm>
#include <iterator>
#include <vector>

#include "Base/Text.hpp"
#include "SharedModels/Presentation/AppleProcessDetector.hpp"

namespace quenzel {
namespace {

constexpr std::string_view appExtension = ".app";

constexpr std::string_view topLevelLabels[] = {"com", "org", "net", "io", "dev", "edu",
                                               "gov", "app", "ai",  "me", "co"};

/// The pieces between separators, empty ones dropped.
std::vector<std::string_view> pieces(std::string_view text, char separator) {
  std::vector<std::string_view> found;
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, text.find(separator));
    if (!piece.empty()) found.push_back(piece);
    text.remove_prefix(std::min(piece.size() + 1, text.size()));
  }
  return found;
}

// No character outside ASCII has "a", "p" or a dot as its lower case.
bool namesApp(std::string_view component) {
  return component.size() >= appExtension.size() &&
         equalsIgnoringASCIICase(component.substr(component.size() - appExtension.size()), appExtension);
}

bool isPath(const ProcessDrain& process) { return process.name.starts_with('/'); }

/// A component that is all extension has none: ".app" is a hidden file.
std::string_view withoutAppExtension(std::string_view component) {
  if (component.size() > appExtension.size()) component.remove_suffix(appExtension.size());
  return component;
}

}  // namespace

std::string processDisplayName(const ProcessDrain& process) {
  return processDisplayName(process, processAppBundlePath(process));
}

std::string processDisplayName(const ProcessDrain& process, const std::optional<std::string>& bundlePath) {
  if (process.displayName && !isBlank(*process.displayName)) return *process.displayName;
  if (!isPath(process)) return normalizedDisplayName(process.name);
  if (bundlePath) return normalizedDisplayName(withoutAppExtension(lastPathComponent(*bundlePath)));
  return normalizedDisplayName(lastPathComponent(process.name));
}

std::string normalizedDisplayName(std::string_view name) {
  const std::string_view text = trimmed(name);
  if (text.empty()) return std::string(name);
  if (text.size() >= 2 && text.front() == '(' && text.back() == ')') {
    const std::string_view inner = trimmed(text.substr(1, text.size() - 2));
    if (!inner.empty()) return std::string(inner);
  }
  return std::string(reverseDNSLeafIdentifier(text).value_or(text));
}

std::optional<std::string_view> reverseDNSLeafIdentifier(std::string_view identifier) {
  if (identifier.find_first_of("/ ") != std::string_view::npos) return std::nullopt;
  const std::vector<std::string_view> labels = pieces(identifier, '.');
  if (labels.size() < 3) return std::nullopt;
  const std::string first = lowercased(labels.front());
  if (std::find(std::begin(topLevelLabels), std::end(topLevelLabels), first) == std::end(topLevelLabels))
    return std::nullopt;
  const std::string_view leaf = trimmed(labels.back());
  return leaf.empty() ? std::nullopt : std::optional(leaf);
}

std::optional<std::string> topLevelAppBundlePath(std::string_view path) {
  std::string bundle;
  while (!path.empty()) {
    const std::string_view component = path.substr(0, path.find('/'));
    path.remove_prefix(std::min(component.size() + 1, path.size()));
    if (component.empty()) continue;
    bundle.append(1, '/').append(component);
    if (namesApp(component)) return bundle;
  }
  return std::nullopt;
}

std::optional<std::string> processAppBundlePath(const ProcessDrain& process) {
  return isPath(process) ? topLevelAppBundlePath(process.name) : std::nullopt;
}

std::optional<std::string> processExecutablePath(const ProcessDrain& process) {
  return isPath(process) ? std::optional(process.name) : std::nullopt;
}

std::optional<std::string> processSubtitleText(const ProcessDrain& process) {
  if (auto bundle = processAppBundlePath(process)) return bundle;
  if (isPath(process)) return process.name;
  if (process.bundleID && !process.bundleID->empty()) return process.bundleID;
  const std::string_view name = trimmed(process.name);
  if (name.empty() || name == processDisplayName(process)) return std::nullopt;
  return std::string(name);
}

int processPresentationScore(const ProcessDrain& process) {
  return processPresentationScore(process, processAppBundlePath(process));
}

int processPresentationScore(const ProcessDrain& process, const std::optional<std::string>& bundlePath) {
  return (bundlePath ? 20 : 0) + (isPath(process) ? 10 : 0) +
         (process.bundleID && !process.bundleID->empty() ? 3 : 0) + (process.pid > 0 ? 1 : 0);
}

bool isAppleSystemProcess(const ProcessDrain& process) {
  return AppleProcessDetector::isAppleSystemProcess(process.name, process.bundleID,
                                                    processDisplayName(process));
}

}  // namespace quenzel
