#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace quenzel {

// The one home of number texts. The locale never matters. Pure functions.

/// The whole text as a floating-point number, in any form that strtod(3) takes in the C locale, correctly
/// rounded; none for anything more or less than that, leading or trailing blanks included.
std::optional<double> parseDouble(std::string_view text);

/// The whole text as a decimal integer with an optional sign; none when it is anything else or does not fit
/// T, as no negative number does where T is unsigned.
template <std::integral T = std::int64_t>
std::optional<T> parseInteger(std::string_view text) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  T number{};
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end ? std::optional<T>(number) : std::nullopt;
}

/// Takes numbers off the front of a text, each after any blanks and tabs.
class NumberScanner {
 public:
  explicit NumberScanner(std::string_view text) : rest_(text) {}

  /// A decimal integer with an optional sign, limited to the range of the type; none, and nothing taken, when
  /// the text goes on otherwise.
  std::optional<std::int64_t> integer();
  /// A decimal floating-point number: digits with an optional sign, fraction and exponent.
  std::optional<double> decimal();
  std::string_view rest() const { return rest_; }

 private:
  void skipBlanks();

  std::string_view rest_;
};

/// The shortest decimal form that reads back to the same value, always with a fractional part or an exponent
/// ("4.0", "0.25", "1e+16").
std::string shortestDecimal(double value);

/// "true" or "false".
constexpr std::string_view boolText(bool value) { return value ? "true" : "false"; }

/// The value with two decimals, or "nil" when there is none.
std::string twoDecimalsOrNil(std::optional<double> value);

/// The value where it is greater than 0, else 0; what is not a number counts as 0.
constexpr double nonNegative(double value) { return value > 0 ? value : 0; }

}  // namespace quenzel
