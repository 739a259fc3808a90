#include "Base/Number.hpp"

#include <charconv>
#include <cstdlib>
#include <limits>
#include <system_error>

#include <fmt/format.h>
#include <locale.h>
#if defined(__APPLE__)
#include <xlocale.h>
#endif

namespace quenzel {
namespace {

constexpr double powersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                  1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr std::uint64_t largestExactMantissa = std::uint64_t{1} << 53;
/// That many digits fit 64 bits whatever they are.
constexpr std::size_t mostPlainDigits = 18;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::size_t signLength(std::string_view text) {
  return !text.empty() && (text.front() == '+' || text.front() == '-') ? 1 : 0;
}

/// Appends the leading digits to the number, which wraps beyond eighteen of them, and returns how many there
/// are.
std::size_t takeDigits(std::string_view text, std::uint64_t& number) {
  std::size_t length = 0;
  for (; length < text.size() && isDigit(text[length]); ++length) {
    number = number * 10 + static_cast<std::uint64_t>(text[length] - '0');
  }
  return length;
}

/// The value of so many digits, the last `fraction` of them behind the point. A mantissa and a power of ten
/// that are both exact doubles divide to the correctly rounded result (W. D. Clinger, How to Read Floating
/// Point Numbers Accurately, 1990), and what tools print is of that kind; none for the rest.
std::optional<double> plainDecimal(std::uint64_t mantissa, std::size_t digits, std::size_t fraction,
                                   bool negative) {
  if (digits == 0 || digits > mostPlainDigits || mantissa > largestExactMantissa) return std::nullopt;
  const double value = static_cast<double>(mantissa) / powersOfTen[fraction];
  return negative ? -value : value;
}

std::optional<double> parsePlainDecimal(std::string_view text) {
  const std::size_t sign = signLength(text);
  const std::string_view number = text.substr(sign);
  std::uint64_t mantissa = 0;
  const std::size_t whole = takeDigits(number, mantissa);
  std::size_t fraction = 0;
  std::size_t length = whole;
  if (length < number.size() && number[length] == '.') {
    fraction = takeDigits(number.substr(length + 1), mantissa);
    length += 1 + fraction;
  }
  if (length != number.size()) return std::nullopt;
  return plainDecimal(mantissa, whole + fraction, fraction, sign == 1 && text.front() == '-');
}

/// Length of "e", a sign and digits at the front; 0 when the exponent has no digits.
std::size_t exponentLength(std::string_view text) {
  if (text.empty() || (text.front() != 'e' && text.front() != 'E')) return 0;
  const std::size_t sign = signLength(text.substr(1));
  std::uint64_t exponent = 0;
  const std::size_t digits = takeDigits(text.substr(1 + sign), exponent);
  return digits == 0 ? 0 : 1 + sign + digits;
}

locale_t cLocale() {
  static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  return locale;
}

}  // namespace

std::optional<double> parseDouble(std::string_view text) {
  if (const auto plain = parsePlainDecimal(text)) return plain;
  const bool leadingBlank =
      !text.empty() && (text.front() == ' ' || (text.front() >= '\t' && text.front() <= '\r'));
  if (text.empty() || leadingBlank) return std::nullopt;
  const std::string copy(text);
  char* end = nullptr;
  const double value = ::strtod_l(copy.c_str(), &end, cLocale());
  if (end != copy.c_str() + copy.size()) return std::nullopt;
  return value;
}

void NumberScanner::skipBlanks() {
  while (!rest_.empty() && (rest_.front() == ' ' || rest_.front() == '\t')) rest_.remove_prefix(1);
}

std::optional<std::int64_t> NumberScanner::integer() {
  skipBlanks();
  const std::size_t sign = signLength(rest_);
  std::uint64_t number = 0;
  const std::size_t digits = takeDigits(rest_.substr(sign), number);
  if (digits == 0) return std::nullopt;
  const std::string_view text = rest_.substr(0, sign + digits);
  rest_.remove_prefix(text.size());
  const bool negative = text.front() == '-';
  if (digits <= mostPlainDigits) {
    const auto magnitude = static_cast<std::int64_t>(number);
    return negative ? -magnitude : magnitude;
  }
  if (const auto value = parseInteger(text)) return value;
  using Limits = std::numeric_limits<std::int64_t>;
  return negative ? Limits::min() : Limits::max();
}

std::optional<double> NumberScanner::decimal() {
  skipBlanks();
  std::size_t length = signLength(rest_);
  std::uint64_t mantissa = 0;
  const std::size_t whole = takeDigits(rest_.substr(length), mantissa);
  length += whole;
  std::size_t fraction = 0;
  if (length < rest_.size() && rest_[length] == '.') {
    fraction = takeDigits(rest_.substr(length + 1), mantissa);
    if (whole + fraction > 0) length += 1 + fraction;
  }
  if (whole + fraction == 0) return std::nullopt;
  const std::size_t exponent = exponentLength(rest_.substr(length));
  const std::string_view number = rest_.substr(0, length + exponent);
  rest_.remove_prefix(number.size());
  if (exponent == 0) {
    if (const auto plain = plainDecimal(mantissa, whole + fraction, fraction, number.front() == '-'))
      return plain;
  }
  return parseDouble(number);
}

std::string shortestDecimal(double value) {
  std::string text = fmt::format("{}", value);
  if (text.find_first_of(".en") == std::string::npos) text += ".0";
  return text;
}

std::string twoDecimalsOrNil(std::optional<double> value) {
  return value ? fmt::format("{:.2f}", *value) : std::string("nil");
}

}  // namespace quenzel
