#include "QuenzelMonitor/Commands/Arguments.hpp"

#include <optional>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Base/Number.hpp"

namespace quenzel {
namespace {

template <typename Value>
struct Range {
  Value least;
  Value most;

  bool contains(Value value) const { return value >= least && value <= most; }
};

/// What an option takes, for people: a limit that nobody meets is left out.
template <typename Value>
std::string rangeText(const std::string& kind, Range<Value> range, Value unlimited) {
  if (range.most < unlimited) return fmt::format("{} from {} to {}", kind, range.least, range.most);
  return range.least > -unlimited ? fmt::format("{} of at least {}", kind, range.least) : kind;
}

/// An option of one value. Text that `parse` makes nothing of, or a value outside the range, is refused with
/// the range. capture_default_str() shows the default in the help.
template <typename Value, typename Target>
CLI::Option* addRangeOption(CLI::App& app, const std::string& name, Target& value, Range<Value> range,
                            const std::string& taken, const std::string& description,
                            std::optional<Value> (*parse)(std::string_view)) {
  const auto take = [&value, range, name, taken, parse](const CLI::results_t& texts) {
    const auto parsed = parse(texts.front());
    if (!parsed || !range.contains(*parsed))
      throw CLI::ValidationError(name, fmt::format("\"{}\" is not {}", texts.front(), taken));
    value = *parsed;
    return true;
  };
  return app.add_option(name, take, description)->expected(1)->type_name("N");
}

/// A decimal number: "0x10" is more likely a mistake than sixteen.
std::optional<double> parseDecimal(std::string_view text) {
  return text.find_first_of("xX") == std::string_view::npos ? parseDouble(text) : std::nullopt;
}

template <typename Target>
CLI::Option* addDecimalOption(CLI::App& app, const std::string& name, Target& value, Range<double> range,
                              const std::string& description) {
  return addRangeOption(app, name, value, range, rangeText("a number", range, anySeconds), description,
                        parseDecimal);
}

}  // namespace

CLI::Option* addIntegerOption(CLI::App& app, const std::string& name, std::int64_t& value, std::int64_t least,
                              std::int64_t most, const std::string& description) {
  const Range<std::int64_t> range{least, most};
  CLI::Option* const option = addRangeOption(
      app, name, value, range, rangeText("a whole number", range, anyCount), description, parseInteger<>);
  option->default_function([&value] { return fmt::to_string(value); });
  return option;
}

CLI::Option* addNumberOption(CLI::App& app, const std::string& name, double& value, double least, double most,
                             const std::string& description) {
  CLI::Option* const option = addDecimalOption(app, name, value, {least, most}, description);
  option->default_function([&value] { return fmt::to_string(value); });
  return option;
}

CLI::Option* addNumberOption(CLI::App& app, const std::string& name, std::optional<double>& value,
                             double least, double most, const std::string& description) {
  return addDecimalOption(app, name, value, {least, most}, description);
}

}  // namespace quenzel
