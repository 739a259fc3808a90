#pragma once

#include "Platform/RequestTransport.hpp"

namespace quenzel {

/// The daemon's three privileged requests, declared where application and daemon both see them:
/// pingWithReply:, setLowPowerModeWithEnabled:reply: and terminateProcessWithPid:reply: on the wire of macOS,
/// Ping, SetLowPowerMode and TerminateProcess on that of Linux. Replies carry a flag and at most a message,
/// never an error object.
class BatteryMetricsXPCProtocol : public platform::RequestHandler {};

}  // namespace quenzel
