#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "MetricsCollectors/ProcessTerminating.hpp"
#include "MetricsCollectors/ShellRunning.hpp"
#include "SharedModels/Runtime/BatteryMetricsXPCProtocol.hpp"

namespace quenzel {

/// The daemon's three privileged requests. Every one ends in a reply and a log line, whatever fails.
///
/// Every local user may call it, by decision: no connection is turned away, and no request looks at its
/// caller. It has no state, so any number of threads may be inside; a request blocks its thread while pmset
/// or the terminator is at work (seconds at worst).
class BatteryMetricsService final : public BatteryMetricsXPCProtocol {
 public:
  /// Opens the shared snapshot database to every user, once, as the daemon starts. What is handed in must
  /// outlive the service.
  BatteryMetricsService(const ShellRunning& shell, const ProcessTerminating& terminator);

  bool shouldAcceptNewConnection() override;

  void ping(const PingReply& reply) override;
  /// Sets Low Power Mode with pmset(1) and reads it back: pmset's success alone does not count.
  void setLowPowerMode(bool enabled, const OutcomeReply& reply) override;
  void terminateProcess(std::int32_t pid, const OutcomeReply& reply) override;

 private:
  /// What went wrong, logged already; none on success.
  std::optional<std::string> applyLowPowerMode(bool enabled) const;
  /// What `pmset -g` says now.
  /// @throws ShellRunnerError when pmset fails or says nothing of it
  bool currentLowPowerModeEnabled() const;

  const ShellRunning& shell_;
  const ProcessTerminating& terminator_;
};

}  // namespace quenzel
