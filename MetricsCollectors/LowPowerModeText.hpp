#pragma once

#include <string_view>

namespace quenzel {

/// Whether the settings that `pmset -g` prints say that Low Power Mode is on. The first line that names the
/// setting ("lowpowermode", in any letter case) and ends in 1 or 0 decides.
/// @throws ShellRunnerError (failedToLaunch) when no line does
bool lowPowerModeEnabled(std::string_view pmsetOutput);

}  // namespace quenzel
