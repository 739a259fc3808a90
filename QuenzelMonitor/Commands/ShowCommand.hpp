#pragma once

#include <functional>

#include "QuenzelMonitor/Console.hpp"

namespace CLI {
class App;
}

namespace quenzel {

/// `quenzel show`: where the power of the last hour, day or week went.
void addShowCommand(CLI::App& app, std::function<int()>& command, Console& console);

}  // namespace quenzel
