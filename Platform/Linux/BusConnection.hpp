#pragma once

#include <systemd/sd-bus.h>

#include "Base/ScopedResource.hpp"

namespace quenzel::platform {

// What the two ends of a peer-to-peer D-Bus connection share, on sd-bus(3). The wire is the D-Bus
// protocol of freedesktop.org (version 0.36 and later): a SASL exchange of lines, then
// messages. No bus daemon takes part, so there are no names and no Hello.

inline constexpr const char* busObjectPath = "/com/quenzel/BatteryMetrics";
inline constexpr const char* busInterface = "com.quenzel.BatteryMetrics";

/// One end of a connection, for one thread at a time.
using BusHandle = ScopedResource<sd_bus*, ::sd_bus_close_unref>;

/// A connection that is not yet started, accepts no descriptors from its peer and requires no identity of it;
/// none when there is no memory for it. It reads from `input` and writes to `output`, which is the same
/// socket unless another one is given.
BusHandle makeBusConnection(FileDescriptor input, FileDescriptor output = FileDescriptor());

/// Starts a client's connection and drives it until both ends have agreed on the authentication: 0, or a
/// negative error number, -ETIMEDOUT if the server does not finish it within 5 s.
int startBusConnection(sd_bus* bus);

}  // namespace quenzel::platform
