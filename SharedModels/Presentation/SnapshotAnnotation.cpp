#include "SharedModels/Presentation/SnapshotAnnotation.hpp"

#include <utility>

#include <fmt/format.h>

#include "Base/Text.hpp"
#include "SharedModels/Presentation/ProcessDrainPresentation.hpp"

namespace quenzel::ProcessAttributionPresentationService {
namespace {

std::optional<std::string_view> stored(const std::optional<std::string>& field) {
  if (!field) return std::nullopt;
  const std::string_view text = trimmed(*field);
  return text.empty() ? std::nullopt : std::optional(text);
}

std::optional<std::string> storedCopy(const std::optional<std::string>& field) {
  const auto text = stored(field);
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

/// The key is built only where the identity isn't known, which a context that holds the row never sees.
const std::string* contextName(const ProcessDrain& process, const ProcessIdentityMap<std::string>& byIdentity,
                               const TextMap<std::string>& byProcessID) {
  if (byIdentity.empty() && byProcessID.empty()) return nullptr;  // even an empty map hashes what it is asked
  const auto known = byIdentity.find(identityOf(process));
  if (known != byIdentity.end()) return &known->second;
  if (byProcessID.empty()) return nullptr;
  const auto keyed = byProcessID.find(process.id());
  return keyed == byProcessID.end() ? nullptr : &keyed->second;
}

}  // namespace

std::optional<std::string> storedDisplayName(const ProcessDrain& process) {
  return storedCopy(process.displayName);
}
std::optional<std::string> storedCanonicalName(const ProcessDrain& process) {
  return storedCopy(process.canonicalName);
}
std::optional<std::string> storedProcessGroupKey(const ProcessDrain& process) {
  return storedCopy(process.processGroupKey);
}

std::string processGroupKeySource(const ProcessDrain& process, std::string_view canonicalName) {
  const auto key = [](std::string_view prefix, std::string_view text) {
    return fmt::format("{}:{}", prefix, lowercased(trimmed(text)));
  };
  if (const auto bundle = processAppBundlePath(process))
    return process.bundleID && !isBlank(*process.bundleID) ? key("bundle", *process.bundleID)
                                                           : key("app", *bundle);
  if (process.name.starts_with('/')) return key("exec", process.name);
  return isBlank(canonicalName) ? key("raw", process.name) : key("name", canonicalName);
}

std::string displayNameToStore(const ProcessDrain& process, const ProcessPresentationContext& context) {
  if (const auto* name = contextName(process, context.displayNameByIdentity, context.displayNameByProcessID))
    return *name;
  if (const auto name = stored(process.displayName)) return std::string(*name);
  return processDisplayName(process);
}

std::string_view visibleName(const ProcessDrain& process, const ProcessPresentationContext& context,
                             std::string& scratch) {
  if (const auto* name =
          contextName(process, context.canonicalNameByIdentity, context.canonicalNameByProcessID))
    return *name;
  if (const auto name = stored(process.canonicalName)) return *name;
  scratch = displayNameToStore(process, context);
  return scratch;
}

ProcessDrain annotateProcess(ProcessDrain process, const ProcessPresentationContext& context) {
  std::string scratch;
  std::string displayName = displayNameToStore(process, context);
  std::string canonicalName(visibleName(process, context, scratch));
  std::optional<std::string> groupKey = storedProcessGroupKey(process);
  if (!groupKey) {
    const ProcessDrain* const host = hostApplicationProcess(process, context);
    groupKey = processGroupKeySource(host ? *host : process, canonicalName);
  }
  process.displayName = std::move(displayName);
  process.canonicalName = std::move(canonicalName);
  process.processGroupKey = std::move(groupKey);
  return process;
}

DrainSnapshot annotateSnapshot(const DrainSnapshot& snapshot, const ProcessPresentationContext& context) {
  DrainSnapshot annotated = snapshot;
  for (ProcessDrain& process : annotated.processes) process = annotateProcess(std::move(process), context);
  return annotated;
}

DrainSnapshot annotateSnapshot(const DrainSnapshot& snapshot,
                               std::span<const DrainSnapshot> recentSnapshots) {
  return annotateSnapshot(snapshot, makePresentationContext(recentSnapshots));
}

DrainSnapshot annotateSnapshot(const DrainSnapshot& snapshot,
                               std::initializer_list<DrainSnapshot> recentSnapshots) {
  return annotateSnapshot(snapshot, std::span(recentSnapshots.begin(), recentSnapshots.size()));
}

}  // namespace quenzel::ProcessAttributionPresentationService
