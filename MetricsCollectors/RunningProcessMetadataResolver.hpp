#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "MetricsCollectors/BundleIdentifierCache.hpp"
#include "MetricsCollectors/RunningProcessMetadata.hpp"
#include "Platform/RunningProcesses.hpp"

namespace quenzel {

/// Looks a process up: its executable, the bundle around it, that bundle's identifier. Costs system calls;
/// only the identifiers of bundles are remembered. Thread-safe.
class RunningProcessMetadataResolver {
 public:
  explicit RunningProcessMetadataResolver(std::unique_ptr<platform::RunningProcesses> processes);

  /// The resolver over this system's processes.
  static RunningProcessMetadataResolver& shared();

  /// None when nothing at all is known of the process. The texts are valid UTF-8.
  std::optional<RunningProcessMetadata> resolve(std::int32_t pid);

  /// The ".app" or ".xpc" bundle that a path is or lies in. An XPC service inside an application belongs to
  /// the outermost application.
  static std::optional<std::string> bundlePath(const std::string& executablePath);

 private:
  RunningProcessMetadata lookUp(std::int32_t pid);

  std::unique_ptr<platform::RunningProcesses> processes_;
  BundleIdentifierCache bundleIdentifierCache_;
};

}  // namespace quenzel
