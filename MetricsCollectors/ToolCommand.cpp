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
  // What a sudo runs begins with the first absolute path: the tool, or the nice around it.
  const auto first = std::find_if(command.arguments.begin(), wrapped, isAbsolute);
  *wrapped = *tool;
  if (lastPathComponent(executable) == "sudo") return {*first, {first + 1, command.arguments.end()}};
  return command;
}

}  // namespace quenzel
