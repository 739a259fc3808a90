#pragma once

#include <functional>

#include "QuenzelMonitor/Console.hpp"

namespace CLI {
class App;
}

namespace quenzel {

/// `quenzel daemon ping | low-power on|off | terminate PID | quit NAME`: asks the running daemon.
void addDaemonCommand(CLI::App& app, std::function<int()>& command, Console& console);

}  // namespace quenzel
