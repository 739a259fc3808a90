#include "QuenzelDaemon/BatteryMetricsService.hpp"

#include <exception>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Base/Text.hpp"
#include "MetricsCollectors/LowPowerModeText.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"
#include "Storage/SQLiteSnapshotStoreLocation.hpp"
#include "Storage/SharedSnapshotSidecarPermissions.hpp"

namespace quenzel {
namespace {

constexpr std::string_view component = "Daemon";
constexpr const char* pmset = "/usr/bin/pmset";

void info(std::string_view message) { RuntimeLog::info(component, message); }

/// Logs the failure of a request and hands its message on to the reply.
std::string failed(std::string_view deed, std::string message) {
  RuntimeLog::error(component, fmt::format("{}: {}", deed, message));
  return message;
}

std::string pmsetFailure(const ShellResult& result) {
  const std::vector<std::string_view> lines = splitLines(result.stderr);
  return lines.empty() ? fmt::format("pmset returned status {}", result.status) : std::string(lines.front());
}

}  // namespace

BatteryMetricsService::BatteryMetricsService(const ShellRunning& shell, const ProcessTerminating& terminator)
    : shell_(shell), terminator_(terminator) {
  ensureSharedSnapshotSidecarPermissions(SQLiteSnapshotStoreLocation::sharedSnapshotDatabaseURL());
  info("BatteryMetricsService initialized.");
}

bool BatteryMetricsService::shouldAcceptNewConnection() {
  info("Accepted XPC connection.");
  return true;
}

void BatteryMetricsService::ping(const PingReply& reply) {
  info("ping received.");
  reply(true);
}

void BatteryMetricsService::setLowPowerMode(bool enabled, const OutcomeReply& reply) {
  info(fmt::format("setLowPowerMode request received: enabled={}", enabled));
  const std::optional<std::string> failure = applyLowPowerMode(enabled);
  reply(!failure, failure);
}

void BatteryMetricsService::terminateProcess(std::int32_t pid, const OutcomeReply& reply) {
  info(fmt::format("terminateProcess request received: pid={}", pid));
  const ProcessTerminationResult result = terminator_.terminateProcess(pid);
  if (result.succeeded) {
    info(fmt::format("terminateProcess succeeded for pid={}", pid));
  } else {
    failed(fmt::format("terminateProcess failed for pid={}", pid), result.message.value_or("unknown"));
  }
  reply(result.succeeded, result.message);
}

std::optional<std::string> BatteryMetricsService::applyLowPowerMode(bool enabled) const try {
  const ShellResult result = shell_.run(pmset, {"-a", "lowpowermode", enabled ? "1" : "0"});
  if (result.status != 0) return failed("setLowPowerMode failed", pmsetFailure(result));
  const bool state = currentLowPowerModeEnabled();
  if (state != enabled) {
    return failed("setLowPowerMode verification failed",
                  fmt::format("pmset completed but lowpowermode remained {:d}", state));
  }
  info("setLowPowerMode applied successfully.");
  return std::nullopt;
} catch (const std::exception& error) {
  return failed("setLowPowerMode command error", error.what());
}

bool BatteryMetricsService::currentLowPowerModeEnabled() const {
  const ShellResult result = shell_.run(pmset, {"-g"});
  if (result.status != 0) throw ShellRunnerError::nonZeroExit(result.status, result.stdout, result.stderr);
  return lowPowerModeEnabled(result.stdout);
}

}  // namespace quenzel
