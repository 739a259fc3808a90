#include "MetricsCollectors/RunningProcessMetadataResolver.hpp"

#include <string_view>
#include <utility>

#include "SharedModels/Runtime/Text.hpp"

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

}  // namespace

RunningProcessMetadataResolver::RunningProcessMetadataResolver(
    std::unique_ptr<platform::RunningProcesses> processes)
    : processes_(std::move(processes)),
      bundleIdentifierCache_([this](const std::string& path) { return processes_->bundleIdentifier(path); }) {
}

RunningProcessMetadataResolver& RunningProcessMetadataResolver::shared() {
  static RunningProcessMetadataResolver resolver(platform::makeRunningProcesses());
  return resolver;
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

std::optional<RunningProcessMetadata> RunningProcessMetadataResolver::resolve(std::int32_t pid) {
  RunningProcessMetadata metadata = lookUp(pid);
  if (metadata == RunningProcessMetadata{}) return std::nullopt;
  repairTexts(metadata);
  return metadata;
}

RunningProcessMetadata RunningProcessMetadataResolver::lookUp(std::int32_t pid) {
  RunningProcessMetadata metadata;
  metadata.executablePath = processes_->executablePath(pid);
  if (metadata.executablePath) metadata.bundlePath = bundlePath(*metadata.executablePath);
  if (metadata.bundlePath) metadata.bundleID = bundleIdentifierCache_.bundleIdentifier(*metadata.bundlePath);
  if (metadata.bundleID) return metadata;

  const auto application = processes_->runningApplication(pid);
  if (application && !metadata.bundlePath) metadata.bundlePath = application->bundleLocation;
  if (application) metadata.bundleID = application->bundleIdentifier;
  if (!metadata.bundleID && metadata.bundlePath) {
    metadata.bundleID = bundleIdentifierCache_.bundleIdentifier(*metadata.bundlePath);
  }
  return metadata;
}

}  // namespace quenzel
