#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace quenzel {

// Options whose values are numbers, read strictly: the argument parser's own conversion takes "010" for eight
// and "-1" for a very large count. The help calls the value "N" unless type_name() says otherwise, and shows
// the default where capture_default_str() asks for it.

/// A decimal integer from `least` to `most`.
CLI::Option* addIntegerOption(CLI::App& app, const std::string& name, std::int64_t& value, std::int64_t least,
                              std::int64_t most, const std::string& description);

/// A finite decimal number from `least` to `most`.
CLI::Option* addNumberOption(CLI::App& app, const std::string& name, double& value, double least, double most,
                             const std::string& description);

/// The same; absent where the option is left out.
CLI::Option* addNumberOption(CLI::App& app, const std::string& name, std::optional<double>& value,
                             double least, double most, const std::string& description);

// Limits that nobody meets, so that no message speaks of them; each also holds with a minus.
inline constexpr std::int64_t anyCount = std::numeric_limits<std::int64_t>::max();
inline constexpr double anySeconds = 1e12;  ///< thirty thousand years

}  // namespace quenzel
