#include <csignal>
#include <iostream>

#include "QuenzelMonitor/CommandLine.hpp"

int main(int argumentCount, char** arguments) {
  // A parent that ignores SIGCHLD passes that on, and then no child's exit status could be read.
  std::signal(SIGCHLD, SIG_DFL);
  std::ios::sync_with_stdio(false);
  return quenzel::runCommandLine(argumentCount, arguments, {std::cin, std::cout, std::cerr});
}
