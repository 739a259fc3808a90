#pragma once

#include "QuenzelMonitor/Console.hpp"

namespace quenzel {

/// Runs the command that the arguments name (argv[0] is skipped) and returns its exit status: 0 when it did
/// what it was asked, 1 when it could not, 2 for arguments that make no sense. Whatever fails is one line on
/// the error stream. Without a command it prints an overview of the commands, which is no failure.
int runCommandLine(int argumentCount, const char* const* arguments, Console console);

}  // namespace quenzel
