#include <iostream>

#include "Platform/IgnoredSignals.hpp"
#include "Platform/ProcessStart.hpp"
#include "QuenzelMonitor/Commands/CommandLine.hpp"

int main(int argumentCount, char** arguments) {
  quenzel::platform::prepareProcess();
  // A file that may grow no further shows as a failing write, which the command reports, not as a sudden end.
  quenzel::platform::ignoreFileSizeLimit();
  std::ios::sync_with_stdio(false);
  return quenzel::runCommandLine(argumentCount, arguments, {std::cin, std::cout, std::cerr});
}
