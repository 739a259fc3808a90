#include <iostream>

#include "Platform/ProcessStart.hpp"
#include "QuenzelMonitor/CommandLine.hpp"

int main(int argumentCount, char** arguments) {
  quenzel::platform::prepareProcess();
  std::ios::sync_with_stdio(false);
  return quenzel::runCommandLine(argumentCount, arguments, {std::cin, std::cout, std::cerr});
}
