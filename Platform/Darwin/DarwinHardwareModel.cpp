#include "Platform/HardwareModel.hpp"

namespace quenzel::platform {

ModelledHardware modelledHardware() { return {}; }

}  // namespace quenzel::platform
