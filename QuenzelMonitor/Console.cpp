#include "QuenzelMonitor/Console.hpp"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <ios>
#include <istream>
#include <iterator>
#include <ostream>
#include <system_error>

#include "SharedModels/Runtime/Text.hpp"

namespace quenzel {
namespace {

/// The library's buffer throws its own error where read(2) fails.
std::string contentOf(std::istream& stream, const std::string& name) {
  try {
    return {std::istreambuf_iterator<char>(stream), {}};
  } catch (const std::ios_base::failure&) {
    throw CommandError("can't read " + name + ": " + std::generic_category().message(errno));
  }
}

}  // namespace

void reportError(const std::exception& error, Console& console) {
  console.err << "quenzel: " << printableLine(error.what()) << std::endl;
}

std::string readInput(const std::string& file, Console& console) {
  if (file.empty() || file == "-") return contentOf(console.in, "standard input");
  std::error_code failure;
  if (std::filesystem::is_directory(file, failure))
    throw CommandError("can't read " + file + ": it is a folder");
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw CommandError("can't read " + file + ": " + std::generic_category().message(errno));
  return contentOf(stream, file);
}

}  // namespace quenzel
