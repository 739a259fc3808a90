#include "MetricsCollectors/RunningProcessMetadataResolver.hpp"

#include <memory>
#include <string_view>
#include <utility>

#include "Base/Text.hpp"

namespace quenzel {
namespace {

/// Where the text first holds the ASCII needle in any letter case.
std::optional<std::size_t> findIgnoringCase(std::string_view text, std::string_view needle) {
  for (std::size_t start = 0; start + needle.size() <= text.size(); ++start) {
    if (equalsIgnoringASCIICase(text.substr(start, needle.size()), needle)) return start;
  }
  return std::nullopt;
}

/// A path on disk may be any bytes; what is handed on is text.
void repairTexts(RunningProcessMetadata& metadata) {
  for (auto* text : {&metadata.executablePath, &metadata.bundlePath, &metadata.bundleID}) {
    if (*text) *text = repairedUTF8(std::move(**text));
  }
}

platform::RunningProcesses& processesOfThisSystem() {
  static const std::unique_ptr<platform::RunningProcesses> processes = platform::makeRunningProcesses();
  return *processes;
}

RunningProcessMetadata lookUp(platform::RunningProcesses& processes, BundleIdentifierCache& bundles,
                              std::int32_t pid) {
  RunningProcessMetadata metadata;
  metadata.executablePath = processes.executablePath(pid);
  if (metadata.executablePath) {
    metadata.bundlePath = RunningProcessMetadataResolver::bundlePath(*metadata.executablePath);
  }
  if (metadata.bundlePath) metadata.bundleID = bundles.bundleIdentifier(*metadata.bundlePath);
  if (metadata.bundleID) return metadata;

  const auto application = processes.runningApplication(pid);
  if (application && !metadata.bundlePath) metadata.bundlePath = application->bundleLocation;
  if (application) metadata.bundleID = application->bundleIdentifier;
  if (!metadata.bundleID && metadata.bundlePath) {
    metadata.bundleID = bundles.bundleIdentifier(*metadata.bundlePath);
  }
  return metadata;
}

}  // namespace

BundleIdentifierCache& RunningProcessMetadataResolver::bundleIdentifierCache() {
  static BundleIdentifierCache cache(
      [](const std::string& path) { return processesOfThisSystem().bundleIdentifier(path); });
  return cache;
}

std::optional<RunningProcessMetadata> RunningProcessMetadataResolver::resolve(std::int32_t pid) {
  return resolveAmong(processesOfThisSystem(), bundleIdentifierCache(), pid);
}

std::optional<RunningProcessMetadata> RunningProcessMetadataResolver::resolveAmong(
    platform::RunningProcesses& processes, BundleIdentifierCache& bundles, std::int32_t pid) {
  RunningProcessMetadata metadata = lookUp(processes, bundles, pid);
  if (metadata == RunningProcessMetadata{}) return std::nullopt;
  repairTexts(metadata);
  return metadata;
}

std::optional<std::string> RunningProcessMetadataResolver::bundlePath(const std::string& executablePath) {
  if (executablePath.ends_with(".app") || executablePath.ends_with(".xpc")) return executablePath;
  for (const std::string_view mark : {".app/", ".xpc/"}) {
    if (const auto start = findIgnoringCase(executablePath, mark)) {
      return executablePath.substr(0, *start + mark.size() - 1);
    }
  }
  return std::nullopt;
}

}  // namespace quenzel
