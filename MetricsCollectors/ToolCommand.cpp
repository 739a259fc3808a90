#include "MetricsCollectors/ToolCommand.hpp"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <system_error>

#include "Base/Text.hpp"
#include "Platform/FileStatus.hpp"

namespace quenzel {
namespace {

bool isAbsolute(const std::string& path) { return path.starts_with('/'); }

/// The tool of that path below the root; none when there is no such executable file.
std::optional<std::string> toolBelow(const std::string& root, const std::string& path) {
  const std::string candidate = root + path;
  std::error_code failure;
  if (!std::filesystem::is_regular_file(candidate, failure) || !platform::mayExecute(candidate)) {
    return std::nullopt;
  }
  return candidate;
}

/// The value of the variable; empty when it is not set, which means the same to a locale.
std::string_view valueOf(std::string_view name, const std::vector<std::string>& entries) {
  for (const std::string_view entry : entries) {
    if (entry.starts_with(name) && entry.substr(name.size()).starts_with('=')) {
      return entry.substr(name.size() + 1);
    }
  }
  return {};
}

bool setsLocale(std::string_view entry) {
  return entry.starts_with("LC_") || entry.starts_with("LANG=") || entry.starts_with("LANGUAGE=");
}

}  // namespace

std::vector<std::string> toolEnvironment(const std::vector<std::string>& entries) {
  std::vector<std::string> environment;
  std::remove_copy_if(entries.begin(), entries.end(), std::back_inserter(environment), setsLocale);
  // LC_ALL outweighs everything, LANG nothing (locale(7)).
  for (const std::string_view name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const std::string_view encoding = valueOf(name, entries);
    if (encoding.empty()) continue;
    environment.push_back("LC_CTYPE=" + std::string(encoding));
    break;
  }
  return environment;
}

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
