#pragma once

#include <functional>

#include "QuenzelMonitor/Console.hpp"

namespace CLI {
class App;
}

namespace quenzel {

/// `quenzel history latest | show | window | energy | summary | details | import | export | purge`: reads and
/// keeps the history. Points in time on the command line are seconds since 1970, as the database has them; in
/// the JSON that is printed and taken they are seconds since 2001, as in all of it.
void addHistoryCommand(CLI::App& app, std::function<int()>& command, Console& console);

}  // namespace quenzel
