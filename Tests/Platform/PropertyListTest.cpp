#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/PropertyList.hpp"
#include "Tests/Support/ThrownBy.hpp"

namespace quenzel::platform {
namespace {

using Array = PropertyValue::Array;
using Data = PropertyValue::Data;
using Date = PropertyValue::Date;
using Integer = std::int64_t;
using testing::HasSubstr;

constexpr auto smallest = std::numeric_limits<Integer>::min();
constexpr auto largest = std::numeric_limits<Integer>::max();

std::string times(std::size_t count, std::string_view text) {
  std::string result;
  while (count-- > 0) result += text;
  return result;
}

std::string nested(std::size_t levels) { return times(levels, "<array>") + times(levels, "</array>"); }

TEST(PropertyListTest, ReadsEveryTypeOfValue) {
  // clang-format off
  const std::pair<std::string, PropertyValue> rows[] = {
      {"<true/>", true}, {"<plist version=\"1.0\"><false></false></plist>", false}, {"<real>-0.1</real>", -0.1},
      {"<integer>18446744073709550116</integer>", Integer{-1500}},  // 2^64 - 1500, as registries write it
      {"<integer> +9223372036854775807\n</integer>", largest}, {"<integer>-9223372036854775808</integer>", smallest},
      {"<string>  a&lt;&#x42;&amp;<!-- no --><![CDATA[<array>]]> </string>", "  a<B&<array> "},
      {"\xef\xbb\xbf<string/>", ""},                   {"<string>caf\xe9</string>", "caf\xe9"},
      {"<date>2001-01-02T00:00:01Z</date>", Date{86401}}, {"<data> AAEC\n /w== </data>", Data{0, 1, 2, 255}},
      {"<dict><key>a</key><array><dict /></array ><key>a</key><true/><key></key><integer>0</integer></dict>",
       PropertyDictionary{{"a", true}, {"", Integer{0}}}},
      {"<?xml version=\"1.0\"?>\n<!DOCTYPE plist PUBLIC \"x\" \"y.dtd\">\n<!-- <array> -->\n<plist><array/></plist>\n",
       Array{}},
  };
  // clang-format on
  for (const auto& [xml, value] : rows) EXPECT_EQ(decodePropertyList(xml), value) << xml;
}

TEST(PropertyListTest, RefusesWhatIsNoListWithinTheBounds) {
  const std::string tooDeep = "nested more than 64 levels deep";
  // clang-format off
  const std::pair<std::string, std::string> rows[] = {
      {" \n", "is empty"},                                {"bplist00\xd1", "binary form"},
      {"No matching registry entries", "text outside"},   {"<true/>junk", "text outside"},
      {std::string("<string>a\0b</string>", 20), "NUL"},  {"<string>a&#0;b</string>", "can't be read"},
      {"<array><true/>", "ends inside an element"},       {"<array><true/", "ends inside its markup"},
      {"<array></dict>", "closes an element that isn't"}, {"<true/><false/>", "more than one value"},
      {"<dict><key>a</key></dict>", "without a value"},   {"<dict><true/></dict>", "don't alternate"},
      {"<array><key>a</key></array>", "key outside"},     {"<plist/>", "holds no value"},
      {"<string><array/></string>", "inside a text"},     {"<set/>", "that property lists don't have"},
      {"<array a=\"/><array>\"></array>", "attributes"},  {"<!--><array>-->", "malformed comment"},
      {"<!DOCTYPE plist [<!ENTITY a 'b'>]><true/>", "markup of its own"},
      {"<integer>abc</integer>", "malformed <integer>"},
      {"<integer>010</integer>", "malformed <integer>"},  // the library would take it for octal
      {"<integer>18446744073709551616</integer>", "malformed <integer>"},
      {"<integer>-9223372036854775809</integer>", "malformed <integer>"},
      {"<real>1e400</real>", "malformed <real>"},         {"<real>nan</real>", "malformed <real>"},
      {"<date>2101-01-01T00:00:00Z</date>", "malformed <date>"}, {"<data>A</data>", "malformed <data>"},
      {"<string>" + times(8000, "&amp;") + "</string>", "malformed <string>"},
      {times(maxPropertyListBytes + 1, " ") + "<true/>", "larger than"},
      {times(200000, "<dict><key>a</key>"), tooDeep},     {nested(maxPropertyListDepth + 1), tooDeep},
  };
  // clang-format on
  for (const auto& [xml, problem] : rows) {
    const auto error = thrownBy<PropertyListError>([&, text = xml] { decodePropertyList(text); });
    EXPECT_THAT(error.what(), HasSubstr(problem)) << xml.substr(0, 100);
  }
}

TEST(PropertyListTest, ReadsBackWhatItWroteAndWritesNothingElse) {
  PropertyValue deep = Array{};
  for (int level = 1; level < maxPropertyListDepth; ++level) deep = Array{deep};
  const PropertyValue rows[] = {
      deep, PropertyDictionary{{"integers", Array{smallest, Integer{-1}, Integer{0}, largest}},
                               {"reals", Array{0.1, -1.0 / 3, 5e-324, 1.7976931348623157e308, 100.0}},
                               {"texts <&>", Array{"", " a ", "\r\n\t<&>\"'", "\xe2\x82\xac", "caf\xe9"}},
                               {"data", Array{Data{}, Data(100, 0xfe)}},
                               {"dates", Array{Date{0}, Date{-978307200}, Date{2000000000}}},
                               {"", Array{PropertyDictionary{}, true, false}}}};
  for (const PropertyValue& value : rows) EXPECT_EQ(decodePropertyList(encodePropertyList(value)), value);
  EXPECT_THAT(encodePropertyList(Integer{-1500}), HasSubstr("<integer>-1500</integer>"));

  const std::string withNul("a\0b", 3);
  const double infinity = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const PropertyValue& value :
       Array{withNul, PropertyDictionary{{withNul, true}}, infinity, nan, Date{1e10}, Date{nan}, Array{deep}})
    EXPECT_THROW(encodePropertyList(value), PropertyListError) << value.value.index();
}

}  // namespace
}  // namespace quenzel::platform
