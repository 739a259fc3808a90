#pragma once

#include <functional>

#include "QuenzelMonitor/Console.hpp"

namespace CLI {
class App;
}

namespace quenzel {

/// `quenzel record`: records the history of this machine until SIGINT, SIGTERM or --count ends it. Each cycle
/// is acknowledged with a line that begins with its outcome and the snapshot's time in seconds since 1970,
/// written so that it reads back to the very number in the database, and flushed; "inserted" and
/// "replacedNearDuplicate" come only when the snapshot is committed. A failure is one line on the error
/// stream and in the log, and with --json an acknowledgement too. An interval that is shorter than cycles
/// take is reported once, with the one that replaces it. What lasts is not repeated with every cycle: the
/// reason of a rejection (JSON always has it), and on the error stream what this user may not read, with the
/// remedy, are printed when they are new and then every tenth minute.
///
/// The exit status is 0 however the recording ended, unless none of --count cycles stored anything, the
/// database can't be opened, or nobody takes the output any more.
void addRecordCommand(CLI::App& app, std::function<int()>& command, Console& console);

}  // namespace quenzel
