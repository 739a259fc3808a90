#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel {
namespace {

using Kind = JSONCodingError::Kind;
using nlohmann::ordered_json;
using testing::HasSubstr;

constexpr auto kInfinity = std::numeric_limits<double>::infinity();

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
  EXPECT_EQ(decoded<double>("0.1"), 0.1);
  EXPECT_EQ(decoded<double>("5e-324"), std::numeric_limits<double>::denorm_min());
  EXPECT_TRUE(std::signbit(decoded<double>("-0.0")));
  EXPECT_EQ(decoded<PointInTime>("0.5"), PointInTime{0.5});

  const auto kindOf = [](const auto decode, const std::string& text) {
    return thrownBy<JSONCodingError>([&] { decode(parseJSON(text), JSONPath()); }).kind();
  };
  EXPECT_EQ(kindOf(decodeJSON<std::int64_t>, "9223372036854775808"), Kind::outOfRange);
  EXPECT_EQ(kindOf(decodeJSON<std::int64_t>, "9223372036854775808.0"), Kind::outOfRange);
  EXPECT_EQ(kindOf(decodeJSON<std::uint64_t>, "18446744073709551616"), Kind::outOfRange);
  EXPECT_EQ(kindOf(decodeJSON<std::uint64_t>, "-1"), Kind::outOfRange);
  EXPECT_EQ(kindOf(decodeJSON<std::uint64_t>, "-1.0"), Kind::outOfRange);
  EXPECT_EQ(kindOf(decodeJSON<std::int64_t>, "5.5"), Kind::wrongType);
  EXPECT_EQ(kindOf(decodeJSON<std::int64_t>, "true"), Kind::wrongType);
  EXPECT_EQ(kindOf(decodeJSON<double>, "\"5\""), Kind::wrongType);
  EXPECT_EQ(kindOf(decodeJSON<double>, "false"), Kind::wrongType);
  EXPECT_EQ(kindOf(decodeJSON<bool>, "1"), Kind::wrongType);
  EXPECT_EQ(kindOf(decodeJSON<std::string>, "null"), Kind::wrongType);
}

TEST(JSONCodingTest, RefusesDocumentsThatAreNoneOrTooDeep) {
  const std::string deepest(maxJSONDepth, '[');
  EXPECT_NO_THROW(parseJSON(deepest + std::string(maxJSONDepth, ']')));
  EXPECT_NO_THROW(parseJSON("\"\\\"" + std::string(1000, '[') + "\""));
  const struct {
    std::string text;
    Kind kind;
  } rows[] = {
      {"", Kind::syntax},
      {"{\"a\":}", Kind::syntax},
      {"{} x", Kind::syntax},
      {std::string("{}\0x", 4), Kind::syntax},
      {"1e999", Kind::syntax},
      {"\"\xff\"", Kind::syntax},
      {deepest + "[", Kind::limitExceeded},
      {std::string(200000, '['), Kind::limitExceeded},
      {std::string(maxJSONBytes + 1, ' '), Kind::limitExceeded},
  };
  for (const auto& row : rows) {
    const auto error = thrownBy<JSONCodingError>([&] { parseJSON(row.text); });
    EXPECT_EQ(error.kind(), row.kind) << row.text.substr(0, 20) << ": " << error.what();
    EXPECT_THAT(error.what(), testing::StartsWith("JSON document: "));
  }
}

TEST(JSONCodingTest, WritesDoublesThatReadBackAndRefusesWhatHasNoForm) {
  for (const double value : {0.1, -0.0, 5e-324, 1.7976931348623157e308, 778123456.789, 1.0 / 3}) {
    const double back = decoded<double>(encodeJSON(value));
    EXPECT_EQ(back, value);
    EXPECT_EQ(std::signbit(back), std::signbit(value));
  }
  EXPECT_EQ(encodeJSON({{"b", 1}, {"a", {true, nullptr, "\n"}}}), R"({"b":1,"a":[true,null,"\n"]})");
  EXPECT_EQ(encodeJSON({{"b", 1}}, JSONStyle::pretty), "{\n  \"b\": 1\n}");

  const struct {
    ordered_json value;
    Kind kind;
    const char* description;
  } rows[] = {
      {{{"a", {1, {{"w", kInfinity}}}}},
       Kind::notFinite,
       "a[1].w: a number that isn't finite has no JSON form"},
      {std::nan(""), Kind::notFinite, "JSON document: a number that isn't finite has no JSON form"},
      {{{"a", {"ok", "caf\xe9"}}}, Kind::invalidText, "a[1]: the text isn't UTF-8"},
      {{{"a", {{"\xff", 1}}}}, Kind::invalidText, "a: the text isn't UTF-8"},
  };
  for (const auto& row : rows) {
    const auto error = thrownBy<JSONCodingError>([&] { encodeJSON(row.value); });
    EXPECT_EQ(error.kind(), row.kind);
    EXPECT_STREQ(error.what(), row.description);
  }
}

}  // namespace
}  // namespace quenzel
