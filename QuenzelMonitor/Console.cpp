#include "QuenzelMonitor/Console.hpp"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <ios>
#include <istream>
#include <ostream>
#include <system_error>

#include <fmt/format.h>

#include "Base/ErrorText.hpp"
#include "Base/Text.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

bool isStandardInput(const std::string& file) { return file.empty() || file == "-"; }

std::string nameOf(const std::string& file) { return isStandardInput(file) ? "standard input" : file; }

std::ifstream openFile(const std::string& file) {
  std::error_code failure;
  if (std::filesystem::is_directory(file, failure))
    throw CommandError("can't read " + file + ": it is a folder");
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw CommandError("can't read " + file + ": " + errorText(errno));
  return stream;
}

/// The library's buffer throws its own error where read(2) fails.
template <typename Read>
auto reading(const std::string& file, Read read) {
  try {
    return read();
  } catch (const std::ios_base::failure&) {
    throw CommandError("can't read " + nameOf(file) + ": " + errorText(errno));
  }
}

std::string contentOf(std::istream& stream, const std::string& file) {
  return reading(file, [&] {
    std::string content;
    char block[64 * 1024];
    for (std::streamsize count; (count = stream.rdbuf()->sgetn(block, sizeof(block))) > 0;) {
      content.append(block, static_cast<std::size_t>(count));
      if (content.size() > maxInputBytes)
        throw CommandError(fmt::format("{} is longer than {} MiB", nameOf(file), maxInputBytes >> 20));
    }
    return content;
  });
}

}  // namespace

void reportError(const std::exception& error, Console& console) {
  console.err << "quenzel: " << printableLine(error.what()) << std::endl;
}

std::string readInput(const std::string& file, Console& console) {
  if (isStandardInput(file)) return contentOf(console.in, file);
  std::ifstream stream = openFile(file);
  return contentOf(stream, file);
}

int printJSON(const nlohmann::ordered_json& json, Console& console) {
  console.out << encodeJSON(json, JSONStyle::pretty) << '\n';
  return exitSuccess;
}

LineReader::LineReader(const std::string& file, Console& console)
    : name_(file),
      file_(isStandardInput(file) ? std::ifstream() : openFile(file)),
      stream_(isStandardInput(file) ? console.in : file_) {}

bool LineReader::next(std::string& line, std::size_t longest) {
  line.clear();
  return reading(name_, [&] {
    constexpr int end = std::char_traits<char>::eof();
    std::streambuf& bytes = *stream_.rdbuf();
    int byte = bytes.sbumpc();
    if (byte == end) return false;
    for (; byte != end && byte != '\n'; byte = bytes.sbumpc()) {
      if (line.size() < longest) line += static_cast<char>(byte);
    }
    return true;
  });
}

}  // namespace quenzel
