#include "MetricsCollectors/LowPowerModeText.hpp"

#include "Base/Text.hpp"
#include "MetricsCollectors/ShellRunning.hpp"

namespace quenzel {

bool lowPowerModeEnabled(std::string_view pmsetOutput) {
  for (const std::string_view line : splitLines(pmsetOutput)) {
    const std::string setting = lowercased(trimmed(line));
    if (!setting.starts_with("lowpowermode")) continue;
    const std::string_view value = splitWhitespace(setting).back();
    if (value == "1") return true;
    if (value == "0") return false;
  }
  throw ShellRunnerError::failedToLaunch("Unable to determine lowpowermode state from pmset output.");
}

}  // namespace quenzel
