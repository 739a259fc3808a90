#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "SharedModels/Runtime/Number.hpp"

namespace quenzel {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();

TEST(Number, ParsesAWholeTextOrNothing) {
  // clang-format off
  const std::pair<std::string_view, double> numbers[] = {
      {"4", 4},     {"-0.25", -0.25}, {"+.5", 0.5},     {"5.", 5},           {"0.1", 0.1},
      {"1e3", 1e3}, {"0x10", 16},     {"inf", infinity}, {"1e999", infinity}, {"-0", 0},
      {"0.30000000000000004", 0.30000000000000004},  {"123456789.123456789", 123456789.123456789},
      {"9007199254740993", 9007199254740992.0}};  // halfway: to even
  // clang-format on
  for (const auto& [text, value] : numbers) EXPECT_EQ(parseDouble(text), value) << text;
  EXPECT_TRUE(std::isnan(parseDouble("nan").value()));
  EXPECT_TRUE(std::signbit(parseDouble("-0").value()));
  for (const std::string_view text : {"", " 2", "2 ", "\n2", "abc", "1,5", ".", "-", "1.2.3"}) {
    EXPECT_EQ(parseDouble(text), std::nullopt) << text;
  }
  EXPECT_EQ(parseDouble(std::string_view("1\0", 2)), std::nullopt);
}

TEST(Number, ParsesIntegersThatFit) {
  const std::pair<std::string_view, std::int64_t> numbers[] = {
      {"0", 0}, {"+7", 7}, {"-5", -5}, {"9223372036854775807", largest}};
  for (const auto& [text, value] : numbers) EXPECT_EQ(parseInteger(text), value) << text;
  for (const std::string_view text : {"9223372036854775808", "+-3", "", "+", "1.0", " 1"}) {
    EXPECT_EQ(parseInteger(text), std::nullopt) << text;
  }
}

TEST(Number, ScansNumbersOffTheFront) {
  NumberScanner scanner(" 12\t-3 4.5e1 .5x 7");
  EXPECT_EQ(scanner.integer(), 12);
  EXPECT_EQ(scanner.integer(), -3);
  EXPECT_EQ(scanner.decimal(), 45.0);
  EXPECT_EQ(scanner.decimal(), 0.5);
  EXPECT_EQ(scanner.integer(), std::nullopt);
  EXPECT_EQ(scanner.rest(), "x 7");
  EXPECT_EQ(NumberScanner("\n1").integer(), std::nullopt);  // a line break is no blank
  EXPECT_EQ(NumberScanner("99999999999999999999").integer(), largest);
  EXPECT_EQ(NumberScanner("nan").decimal(), std::nullopt);
  EXPECT_EQ(NumberScanner("5e+").decimal(), 5.0);
}

TEST(Number, PrintsTheShortestFormThatReadsBack) {
  EXPECT_EQ(shortestDecimal(4), "4.0");
  EXPECT_EQ(shortestDecimal(0.1), "0.1");
  EXPECT_EQ(shortestDecimal(infinity), "inf");
  EXPECT_EQ(twoDecimalsOrNil(1.005), "1.00");  // the double lies below 1.005
  EXPECT_EQ(twoDecimalsOrNil(std::nullopt), "nil");
  EXPECT_EQ(nonNegative(std::nan("")), 0.0);
  EXPECT_EQ(nonNegative(-1), 0.0);
}

}  // namespace
}  // namespace quenzel
