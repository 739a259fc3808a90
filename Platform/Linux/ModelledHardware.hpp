#pragma once

#include "Platform/Linux/ModelledPower.hpp"

namespace quenzel::platform {

// The modelled hardware's state is shared by every program of this system on the machine. It lies in
// "<shared directory>/Quenzel/modelled-hardware.plist", which is replaced as a whole while the lock file
// beside it is held. Thread-safe.

/// The model at this instant, saved for the next reading. Never waits: while another program is saving, its
/// own result is not saved. Without a state file that can be read and written each reading starts afresh.
ModelledHardwareState readModelledHardware();

/// Changes the modelled machine's Low Power Mode, waiting for other programs' saving to end; false when it
/// could not be saved.
bool setModelledLowPowerMode(bool enabled);

}  // namespace quenzel::platform
