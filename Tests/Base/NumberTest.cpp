#include <cmath>

#include <gtest/gtest.h>

#include "Base/Number.hpp"
#include "Base/Text.hpp"

namespace quenzel {
namespace {

TEST(Number, ParsesAWholeTextOrNothing) {
  std::string read;
  for (const std::string_view text :
       splitWhitespace("4 -0.25 +.5 5. 0.1 1e3 0x10 inf 1e999 -0 0.30000000000000004 123456789.123456789 "
                       "9007199254740993"))
    read += shortestDecimal(parseDouble(text).value()) + " ";
  EXPECT_EQ(read,
            "4.0 -0.25 0.5 5.0 0.1 1000.0 16.0 inf inf -0.0 0.30000000000000004 123456789.12345679 "
            "9007199254740992.0 ");  // a number halfway between two goes to the even one
  EXPECT_TRUE(std::isnan(parseDouble("nan").value()));
  for (const std::string_view text : {"", " 2", "2 ", "\n2", "abc", "1,5", ".", "-", "1.2.3"})
    EXPECT_EQ(parseDouble(text), std::nullopt) << text;
  EXPECT_EQ(parseDouble(std::string_view("1\0", 2)), std::nullopt);
  read.clear();
  for (const char* text : {"0", "+7", "-5", "9223372036854775807"})
    read += std::to_string(parseInteger(text).value()) + " ";
  EXPECT_EQ(read, "0 7 -5 9223372036854775807 ");
  for (const char* text : {"9223372036854775808", "+-3", "", "+", "1.0", " 1"})
    EXPECT_EQ(parseInteger(text), std::nullopt) << text;
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
  EXPECT_EQ(NumberScanner("99999999999999999999").integer(), INT64_MAX);
  EXPECT_EQ(NumberScanner("nan").decimal(), std::nullopt);
  EXPECT_EQ(NumberScanner("5e+").decimal(), 5.0);
}

}  // namespace
}  // namespace quenzel
