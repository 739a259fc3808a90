#pragma once

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "QuenzelMonitor/Commands/CommandLine.hpp"

namespace quenzel::testing {

struct Outcome {
  int status;
  std::string out, err;
  nlohmann::json json() const { return nlohmann::json::parse(out); }
};

/// Runs the command line "quenzel WORDS" in this process; no word can hold a blank.
inline Outcome runQuenzel(const std::string& words, const std::string& input = "") {
  std::istringstream list("quenzel " + words), in(input);
  const std::vector<std::string> arguments{std::istream_iterator<std::string>(list), {}};
  std::vector<const char*> pointers;
  for (const std::string& argument : arguments) pointers.push_back(argument.c_str());
  std::ostringstream out, err;
  const int status = runCommandLine(static_cast<int>(pointers.size()), pointers.data(), {in, out, err});
  return {status, out.str(), err.str()};
}

}  // namespace quenzel::testing
