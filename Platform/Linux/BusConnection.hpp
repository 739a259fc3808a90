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

/// A connection that is not yet started, accepts no descriptors from its peer and requires no identity of it;
/// null when there is no memory for it. It reads from `input` and writes to `output`, which is the same
/// socket unless another one is given.
BusPointer makeBusConnection(FileDescriptor input, FileDescriptor output = FileDescriptor());

/// Starts a client's connection and drives it until both ends have agreed on the authentication: 0, or a
/// negative error number, -ETIMEDOUT if the server does not finish it within 5 s.
int startBusConnection(sd_bus* bus);

}  // namespace quenzel::platform
