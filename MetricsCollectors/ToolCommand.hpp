#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quenzel {

/// A command as it is really started.
struct ToolCommand {
  std::string executable;
  std::vector<std::string> arguments;

  bool operator==(const ToolCommand&) const = default;
};

/// Puts the tool that stands at the same path below `toolRoot`, where there is one, in the place of an
/// absolute tool path: as the executable, or as the command that nice or sudo runs. A tool from there needs
/// no privileges, so a sudo around it falls away. Without a root, or with none of its tools named, the
/// command stays as it is. Looks at the file system.
ToolCommand resolveToolCommand(const std::string& executable, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& toolRoot);

/// The environment of a tool whose text is parsed, made of this process's: the C locale, so that no language
/// changes its numbers and words, but for the encoding of characters, which names need as it is.
std::vector<std::string> toolEnvironment(const std::vector<std::string>& entries);

/// Whether the command runs its tool through nice or sudo.
bool isWrapper(const std::string& executable);

}  // namespace quenzel
