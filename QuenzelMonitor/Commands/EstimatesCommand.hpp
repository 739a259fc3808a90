#pragma once

#include <functional>

#include "QuenzelMonitor/Console.hpp"

namespace CLI {
class App;
}

namespace quenzel {

/// `quenzel estimates add | evaluate | pending | list`: stores estimates, records what became of them, and
/// lists them.
void addEstimatesCommand(CLI::App& app, std::function<int()>& command, Console& console);

}  // namespace quenzel
