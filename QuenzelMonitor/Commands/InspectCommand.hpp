#pragma once

#include <functional>

#include "QuenzelMonitor/Console.hpp"

namespace CLI {
class App;
}

namespace quenzel {

/// `quenzel inspect STAGE [FILE]`: runs one stage of the engine on captured input and prints its result as
/// JSON. Apart from the input nothing of this machine is read or written.
void addInspectCommand(CLI::App& app, std::function<int()>& command, Console& console);

}  // namespace quenzel
