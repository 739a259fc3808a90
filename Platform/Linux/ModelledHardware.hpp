#pragma once

#include <optional>
#include <string>

#include "Platform/Linux/ModelledPower.hpp"

namespace quenzel::platform {

// The modelled hardware's state is shared by every program of this system on the machine. It lies in
// "<shared directory>/Quenzel/modelled-hardware.plist", which is replaced as a whole while the lock file
// beside it is held. Thread-safe.

/// The model at this instant, saved for the next reading. Never waits: while another program is saving, its
/// own result is not saved. Without a state file that can be read and written each reading starts afresh.
ModelledHardwareState readModelledHardware();

/// Changes the modelled machine's Low Power Mode. Waits up to a second for other programs' saving to end.
/// @return why it could not be saved, in words for a person; none when it worked
std::optional<std::string> setModelledLowPowerMode(bool enabled);

}  // namespace quenzel::platform
