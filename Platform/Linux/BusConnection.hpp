#pragma once

#include <memory>

#include <systemd/sd-bus.h>

#include "Platform/FileDescriptor.hpp"

namespace quenzel::platform {

// What the two ends of a peer-to-peer D-Bus connection share, on sd-bus(3). The wire is the D-Bus
// protocol of freedesktop.org (version 0.36 and later): a SASL exchange of lines, then
// messages. No bus daemon takes part, so there are no names and no Hello.

inline constexpr const char* busObjectPath = "/com/quenzel/BatteryMetrics";
inline constexpr const char* busInterface = "com.quenzel.BatteryMetrics";

struct BusCloser {
  void operator()(sd_bus* bus) const noexcept { ::sd_bus_close_unref(bus); }
};
/// One end of a connection, for one thread at a time.
using BusPointer = std::unique_ptr<sd_bus, BusCloser>;

/// A connection on the socket, not yet started, that takes no descriptors from its peer and insists on no
/// identity of its own; null when there is no memory for it.
BusPointer makeBusConnection(FileDescriptor socket);

/// Starts the connection and drives it until both ends have agreed on the authentication: 0, or a negative
/// error number, -ETIMEDOUT when the peer has not done its share after 5 seconds.
int startBusConnection(sd_bus* bus);

/// Waits until there is something to do; signals are no reason to return. A negative error number on failure.
int waitForBusConnection(sd_bus* bus);

}  // namespace quenzel::platform
