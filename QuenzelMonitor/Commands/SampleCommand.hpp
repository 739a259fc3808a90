#pragma once

#include <functional>

#include "QuenzelMonitor/Console.hpp"

namespace CLI {
class App;
}

namespace quenzel {

/// `quenzel sample`: runs one sampling cycle, or one every so many seconds, and prints what it found.
void addSampleCommand(CLI::App& app, std::function<int()>& command, Console& console);

}  // namespace quenzel
