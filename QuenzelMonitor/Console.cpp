#include "QuenzelMonitor/Console.hpp"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <istream>
#include <iterator>
#include <system_error>

namespace quenzel {
namespace {

std::string contentOf(std::istream& stream) { return {std::istreambuf_iterator<char>(stream), {}}; }

}  // namespace

std::string readInput(const std::string& file, Console& console) {
  if (file.empty() || file == "-") return contentOf(console.in);
  std::error_code failure;
  if (std::filesystem::is_directory(file, failure))
    throw CommandError("can't read " + file + ": it is a folder");
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw CommandError("can't read " + file + ": " + std::generic_category().message(errno));
  std::string content = contentOf(stream);
  if (stream.bad()) throw CommandError("can't read " + file + " to its end");
  return content;
}

}  // namespace quenzel
