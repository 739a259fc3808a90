#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Linux/PowerSupplies.hpp"
#include "Platform/PropertyValue.hpp"

namespace quenzel::platform {

// A model of a thin laptop's power, for machines that have no battery or no power counters: virtual machines,
// test machines. Its input is real (how busy the processors are), its constants are round figures of such a
// laptop:
//
//   package   0.8 W idle, 15 W with every processor busy, in proportion between
//   memory    0.4 W idle, 1.6 W busy
//   rest      4.0 W always: display at half brightness, disk, radio
//   battery   4560 mAh of 5000 when new at a steady 11.4 V, which is 52 of 57 Wh
//
// The battery starts at 80 % on battery power. At 5 % an imagined adapter of 30 W takes over until 80 % are
// reached again, and so on, so that a demonstration that runs for days sees both kinds of power.

/// What the machine did up to an instant.
struct MachineActivity {
  std::string bootID;  ///< of this boot (random(4)); empty where the kernel gives none
  double uptimeSeconds =
      0;  ///< since boot, time asleep included; no clock that people set, so it never jumps
  std::int64_t busyTicks = 0;
  std::int64_t totalTicks = 0;

  bool operator==(const MachineActivity&) const = default;
};

/// What the model remembers between two readings, of whichever process.
struct ModelledHardwareState {
  MachineActivity activity;  ///< of the last reading that moved the model
  double busyFraction = 0;   ///< of the span before it
  double remainingWh = 0;
  bool charging = false;
  std::int64_t packageMicrojoules = 0;  ///< cumulative; memoryMicrojoules too
  std::int64_t memoryMicrojoules = 0;
  bool lowPowerMode = false;

  bool operator==(const ModelledHardwareState&) const = default;
};

/// Readings closer together than this show the same state, as the counters of real firmware do.
inline constexpr double modelledRefreshSeconds = 0.25;

/// Power of processors and graphics, and of the whole machine.
double modelledPackageWatts(double busyFraction);
double modelledSystemWatts(double busyFraction);

/// The state at the later instant. Without a former state the model starts afresh, its load the average since
/// boot; after a restart of the machine, or when a counter went back, it goes on from the level that it had,
/// with nothing drawn in between.
ModelledHardwareState advancedState(const std::optional<ModelledHardwareState>& former,
                                    const MachineActivity& activity);

/// The battery of that state, called "Modelled battery" with the serial number "MODELLED".
BatteryReading modelledBattery(const ModelledHardwareState& state);

/// The state as a property list; reading gives none for anything that this model can't have written.
PropertyValue encodeModelledHardware(const ModelledHardwareState& state);
std::optional<ModelledHardwareState> decodeModelledHardware(const PropertyDictionary& list);

}  // namespace quenzel::platform
