#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "MetricsCollectors/BundleIdentifierCache.hpp"
#include "MetricsCollectors/RunningProcessMetadata.hpp"
#include "Platform/RunningProcesses.hpp"

namespace quenzel {

/// Looks a process up: its executable, the bundle around it, that bundle's identifier. Costs system calls;
/// only the identifiers of bundles are remembered. Any thread.
namespace RunningProcessMetadataResolver {

/// A process of this system; none when nothing at all is known of it. The texts are valid UTF-8.
std::optional<RunningProcessMetadata> resolve(std::int32_t pid);

/// The identifiers of this system's bundles.
BundleIdentifierCache& bundleIdentifierCache();

/// The same look-up among processes and bundles that are handed in.
std::optional<RunningProcessMetadata> resolveAmong(platform::RunningProcesses& processes,
                                                   BundleIdentifierCache& bundles, std::int32_t pid);

/// The ".app" or ".xpc" bundle that a path is or lies in. An XPC service inside an application belongs to
/// the outermost application.
std::optional<std::string> bundlePath(const std::string& executablePath);

}  // namespace RunningProcessMetadataResolver

}  // namespace quenzel
