#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using enum JSONCodingError::Kind;
using Kind = JSONCodingError::Kind;
using testing::StartsWith;
using namespace std::string_view_literals;

template <typename T>
T decoded(const std::string& text) {
  return decodeJSON<T>(parseJSON(text), {});
}

TEST(JSONCodingTest, ReadsNumbersExactlyAndOnlyFromNumbers) {
  EXPECT_EQ(decoded<std::int64_t>("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(decoded<std::int64_t>("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(decoded<std::uint64_t>("18446744073709551615"), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(decoded<std::int64_t>("5.0"), 5);
  EXPECT_EQ(decoded<std::uint64_t>("1e3"), 1000U);
  EXPECT_EQ(decoded<double>("5"), 5.0);
  EXPECT_EQ(decoded<PointInTime>("0.5"), PointInTime{0.5});

  const auto kindOf = [](const auto decode, const std::string& text) {
    return thrownBy<JSONCodingError>([&] { decode(parseJSON(text), JSONPath()); }).kind();
  };
  for (const char* text : {"9223372036854775808", "9223372036854775808.0", "5.5", "true"})
    EXPECT_EQ(kindOf(decodeJSON<std::int64_t>, text), text[0] == '9' ? outOfRange : wrongType) << text;
  for (const char* text : {"18446744073709551616", "-1", "-1.0"})
    EXPECT_EQ(kindOf(decodeJSON<std::uint64_t>, text), outOfRange) << text;
  EXPECT_EQ(kindOf(decodeJSON<double>, "\"5\""), wrongType);
  EXPECT_EQ(kindOf(decodeJSON<bool>, "1"), wrongType);
  EXPECT_EQ(kindOf(decodeJSON<std::string>, "null"), wrongType);
}

TEST(JSONCodingTest, RefusesDocumentsThatAreNoneOrTooDeep) {
  const std::string deepest(maxJSONDepth, '[');
  EXPECT_NO_THROW(parseJSON(deepest + std::string(maxJSONDepth, ']')));
  EXPECT_NO_THROW(parseJSON("\"\\\"" + std::string(1000, '[') + "\""));
  const auto refusal = [](const std::string& text) {
    const auto error = thrownBy<JSONCodingError>([&] { parseJSON(text); });
    EXPECT_THAT(error.what(), StartsWith("JSON document: "));
    return error.kind();
  };
  for (const std::string_view text : {""sv, "{\"a\":}"sv, "{} x"sv, "{}\0x"sv, "1e999"sv, "\"\xff\""sv})
    EXPECT_EQ(refusal(std::string(text)), syntax) << text;
  for (const std::string& text :
       {deepest + "[", std::string(200000, '['), std::string(maxJSONBytes + 1, ' ')})
    EXPECT_EQ(refusal(text), limitExceeded) << text.size();
}

TEST(JSONCodingTest, WritesDoublesThatReadBackAndRefusesWhatHasNoForm) {
  for (const double value : {0.1, -0.0, 5e-324, 1.7976931348623157e308, 778123456.789, 1.0 / 3}) {
    const double back = decoded<double>(encodeJSON(value));
    EXPECT_EQ(back, value);
    EXPECT_EQ(std::signbit(back), std::signbit(value));
  }
  EXPECT_EQ(encodeJSON({{"b", 1}, {"a", {true, nullptr, "\n"}}}), R"({"b":1,"a":[true,null,"\n"]})");
  EXPECT_EQ(encodeJSON({{"b", 1}}, JSONStyle::pretty), "{\n  \"b\": 1\n}");

  constexpr auto infinity = std::numeric_limits<double>::infinity();
  const std::tuple<nlohmann::ordered_json, Kind, std::string> rows[] = {
      {{{"a", {1, {{"w", infinity}}}}}, notFinite, "a[1].w: a number that isn't finite has no JSON form"},
      {std::nan(""), notFinite, "JSON document: a number that isn't finite has no JSON form"},
      {{{"a", {"ok", "caf\xe9"}}}, invalidText, "a[1]: the text isn't UTF-8"},
      {{{"a", {{"\xff", 1}}}}, invalidText, "a: the text isn't UTF-8"},
  };
  for (const auto& row : rows) {
    const auto error = thrownBy<JSONCodingError>([&] { encodeJSON(std::get<0>(row)); });
    EXPECT_EQ(std::tuple(error.kind(), error.what()), std::tuple(std::get<1>(row), std::get<2>(row)));
  }
}

}  // namespace
}  // namespace quenzel
