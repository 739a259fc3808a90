#include "QuenzelMonitor/Arguments.hpp"

#include <optional>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "SharedModels/Runtime/Number.hpp"

namespace quenzel {
namespace {

/// An option that takes one value and refuses, with the range, what `parse` finds nothing in or what lies
/// outside it.
template <typename Value, typename Target>
CLI::Option* addRangeOption(CLI::App& app, const std::string& name, Target& value, Value least, Value most,
                            const std::string& kind, const std::string& description,
                            std::optional<Value> (*parse)(std::string_view)) {
  const std::string range = most == std::numeric_limits<Value>::max()
                                ? fmt::format("{} of at least {}", kind, least)
                                : fmt::format("{} from {} to {}", kind, least, most);
  const auto take = [&value, least, most, name, range, parse](const CLI::results_t& texts) {
    const auto parsed = parse(texts.front());
    if (!parsed || !(*parsed >= least && *parsed <= most)) {
      throw CLI::ValidationError(name, fmt::format("\"{}\" is not {}", texts.front(), range));
    }
    value = *parsed;
    return true;
  };
  return app.add_option(name, take, description)->expected(1);
}

/// A decimal number: "0x10" is more likely a mistake than sixteen.
std::optional<double> parseDecimal(std::string_view text) {
  return text.find_first_of("xX") == std::string_view::npos ? parseDouble(text) : std::nullopt;
}

}  // namespace

CLI::Option* addIntegerOption(CLI::App& app, const std::string& name, std::int64_t& value, std::int64_t least,
                              std::int64_t most, const std::string& description) {
  return addRangeOption(app, name, value, least, most, "a whole number", description, parseInteger);
}

CLI::Option* addNumberOption(CLI::App& app, const std::string& name, double& value, double least, double most,
                             const std::string& description) {
  return addRangeOption(app, name, value, least, most, "a number", description, parseDecimal);
}

CLI::Option* addNumberOption(CLI::App& app, const std::string& name, std::optional<double>& value,
                             double least, double most, const std::string& description) {
  return addRangeOption(app, name, value, least, most, "a number", description, parseDecimal);
}

}  // namespace quenzel
