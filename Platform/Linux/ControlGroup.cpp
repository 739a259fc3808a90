#include "Platform/Linux/ControlGroup.hpp"

#include <charconv>
#include <vector>

#include "Platform/Linux/KernelFiles.hpp"

namespace quenzel::platform {
namespace {

constexpr std::string_view serviceSuffix = ".service";
constexpr std::string_view scopeSuffix = ".scope";
constexpr std::string_view applicationPrefix = "app-";

/// Undoes systemd's escaping of a unit name (systemd-escape(1)); what is no escape stays as it is.
std::string unescaped(std::string_view name) {
  std::string text;
  for (std::size_t index = 0; index < name.size(); ++index) {
    unsigned char byte = 0;
    const char* const digits = name.data() + index + 2;
    if (name.substr(index, 2) == "\\x" && index + 4 <= name.size() &&
        std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
      text += static_cast<char>(byte);
      index += 3;
    } else {
      text += name[index];
    }
  }
  return text;
}

}  // namespace

std::string_view controlGroupPath(std::string_view cgroup) {
  std::string_view chosen = "/";
  while (!cgroup.empty()) {
    std::string_view line = nextPiece(cgroup, '\n');
    const std::string_view hierarchy = nextPiece(line, ':');
    const std::string_view controllers = nextPiece(line, ':');
    if (line.empty() || line == "/") continue;
    // A hybrid system has both; systemd keeps them alike, and the empty one says nothing.
    if (controllers == "name=systemd") return line;
    if (hierarchy == "0" && controllers.empty()) chosen = line;
  }
  return chosen;
}

std::optional<std::string_view> controlGroupUnit(std::string_view path) {
  std::optional<std::string_view> unit;
  while (!path.empty()) {
    const std::string_view folder = nextPiece(path, '/');
    if (folder.ends_with(serviceSuffix) || folder.ends_with(scopeSuffix)) unit = folder;
  }
  return unit;
}

std::optional<std::string> applicationIdentifier(std::string_view unit) {
  const bool service = unit.ends_with(serviceSuffix);
  if (!service && !unit.ends_with(scopeSuffix)) return std::nullopt;
  std::string_view name = unit.substr(0, unit.size() - (service ? serviceSuffix : scopeSuffix).size());
  if (!name.starts_with(applicationPrefix)) {
    return service && !name.empty() ? std::optional<std::string>(name) : std::nullopt;
  }
  name.remove_prefix(applicationPrefix.size());
  if (service) name = nextPiece(name, '@');
  std::vector<std::string_view> pieces;
  while (!name.empty()) pieces.push_back(nextPiece(name, '-'));
  // Dashes inside an identifier are escaped, so pieces can be told apart by their place; a scope ends in the
  // random one.
  if (!service && pieces.size() > 1) pieces.pop_back();
  return pieces.empty() || pieces.back().empty() ? std::nullopt : std::optional(unescaped(pieces.back()));
}

}  // namespace quenzel::platform
