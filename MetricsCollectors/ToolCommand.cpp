#include "MetricsCollectors/ToolCommand.hpp"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include <unistd.h>

#include "SharedModels/Runtime/Text.hpp"

namespace quenzel {
namespace {

bool isAbsolute(const std::string& path) { return path.starts_with('/'); }

/// The tool of that path below the root; none when there is no such executable file.
std::optional<std::string> toolBelow(const std::string& root, const std::string& path) {
  const std::string candidate = root + path;
  std::error_code failure;
  if (!std::filesystem::is_regular_file(candidate, failure) || ::access(candidate.c_str(), X_OK) != 0) {
    return std::nullopt;
  }
  return candidate;
}

/// The command that a sudo with those arguments runs.
ToolCommand withoutSudo(const std::vector<std::string>& arguments) {
  const auto command = std::find_if(arguments.begin(), arguments.end(), isAbsolute);
  return {*command, {command + 1, arguments.end()}};
}

}  // namespace

bool isWrapper(const std::string& executable) {
  const std::string_view name = lastPathComponent(executable);
  return name == "nice" || name == "sudo";
}

ToolCommand resolveToolCommand(const std::string& executable, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& toolRoot) {
  const ToolCommand asNamed{executable, arguments};
  if (!toolRoot || !isAbsolute(executable)) return asNamed;
  if (const auto tool = toolBelow(*toolRoot, executable)) return {*tool, arguments};
  if (!isWrapper(executable)) return asNamed;

  ToolCommand command = asNamed;
  const auto wrapped =
      std::find_if(command.arguments.begin(), command.arguments.end(),
                   [](const std::string& argument) { return isAbsolute(argument) && !isWrapper(argument); });
  const auto tool = wrapped == command.arguments.end() ? std::nullopt : toolBelow(*toolRoot, *wrapped);
  if (!tool) return asNamed;
  *wrapped = *tool;
  return lastPathComponent(executable) == "sudo" ? withoutSudo(command.arguments) : command;
}

}  // namespace quenzel
