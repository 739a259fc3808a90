// Stand-in for ps(1): the system's own, which it runs, but for the columns that show a process's arguments.
// Secrets are passed in arguments, and what is sampled is kept in files: those columns show its name instead.

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Base/ErrorText.hpp"
#include "Base/ScopedResource.hpp"
#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/Linux/Tools/ToolOutput.hpp"

namespace quenzel::platform {
namespace {

constexpr const char* systemPs = "/bin/ps";

/// "comm=" for "command=", "args=" and "cmd="; every other column as it stands.
std::string withoutArguments(std::string_view column) {
  const std::string_view name = column.substr(0, column.find('='));
  const bool showsArguments = name == "command" || name == "args" || name == "cmd";
  return showsArguments ? "comm" + std::string(column.substr(name.size())) : std::string(column);
}

std::string columnsWithoutArguments(std::string_view format) {
  std::string columns;
  while (!format.empty()) {
    if (!columns.empty()) columns += ',';
    columns += withoutArguments(nextPiece(format, ','));
  }
  return columns;
}

/// Every line with something in its last column: a process may call itself nothing, or a blank, and a reader
/// would not find it.
std::string withNames(std::string_view lines) {
  std::string named;
  while (!lines.empty()) {
    const std::string_view line = nextPiece(lines, '\n');
    named += line;
    named += line.ends_with(' ') ? "?\n" : "\n";
  }
  return named;
}

std::string textFrom(const FileDescriptor& pipe) {
  std::string text;
  std::array<char, 65536> block;
  for (;;) {
    const ssize_t count = ::read(pipe.get(), block.data(), block.size());
    if (count > 0) text.append(block.data(), static_cast<std::size_t>(count));
    if (count == 0 || (count < 0 && errno != EINTR)) return text;
  }
}

int cantRun() { return failed(fmt::format("ps: can't run {}: {}", systemPs, errorText(errno))); }

int run(int argc, char** argv) {
  std::vector<std::string> arguments(argv, argv + argc);
  for (std::size_t index = 1; index < arguments.size(); ++index) {
    if (arguments[index - 1] == "-o") arguments[index] = columnsWithoutArguments(arguments[index]);
  }
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);

  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return cantRun();
  const FileDescriptor output(ends[0]);
  FileDescriptor input(ends[1]);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(input.get(), STDOUT_FILENO);
    std::signal(SIGPIPE, SIG_DFL);
    ::execv(systemPs, pointers.data());
    ::_exit(cantRun());
  }
  if (child < 0) return cantRun();
  input.reset();
  const std::string text = textFrom(output);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  const int shown = printed(withNames(text));
  if (!WIFEXITED(status)) return EXIT_FAILURE;
  return WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : shown;
}

}  // namespace
}  // namespace quenzel::platform

int main(int argc, char** argv) {
  return quenzel::platform::toolMain("ps", [&] { return quenzel::platform::run(argc, argv); });
}
