#pragma once

#include <cstddef>
#include <exception>
#include <fstream>
#include <iosfwd>
#include <stdexcept>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace quenzel {

/// The streams that a command talks to.
struct Console {
  std::istream& in;
  std::ostream& out;
  std::ostream& err;
};

/// A command that can't do what it was asked; what() is the one line that the user sees behind "quenzel: ".
class CommandError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Exit statuses of every command.
inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;

/// Tells the user of a failure, in one line whatever its text holds.
void reportError(const std::exception& error, Console& console);

/// The longest input that is read whole.
inline constexpr std::size_t maxInputBytes = std::size_t{64} * 1024 * 1024;

/// The whole content of a file, or of the console's input for "-" or no name.
/// @throws CommandError when it can't be read, or is too long
std::string readInput(const std::string& file, Console& console);

/// Prints a document for people and programs alike.
/// @return exitSuccess
int printJSON(const nlohmann::ordered_json& json, Console& console);

/// The same content a line at a time.
class LineReader {
 public:
  /// @throws CommandError when it can't be opened
  LineReader(const std::string& file, Console& console);

  /// Takes the next line without its end, cut behind `longest` bytes; false at the end of the input.
  /// @throws CommandError when it can't be read
  bool next(std::string& line, std::size_t longest);

 private:
  std::string name_;
  std::ifstream file_;
  std::istream& stream_;
};

}  // namespace quenzel
