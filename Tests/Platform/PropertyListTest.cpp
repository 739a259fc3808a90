#include <cstdint>
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
using testing::HasSubstr;

std::string times(std::size_t count, std::string_view text) {
  std::string result;
  while (count-- > 0) result += text;
  return result;
}

std::string nested(std::size_t levels) { return times(levels, "<array>") + times(levels, "</array>"); }

TEST(PropertyListTest, ReadsEveryTypeOfValue) {
  const struct {
    std::string xml;
    PropertyValue value;
  } rows[] = {
      {"<true/>", true},
      {"<plist version=\"1.0\"><false></false></plist>", false},
      {"<integer>-1500</integer>", std::int64_t{-1500}},
      {"<integer>18446744073709550116</integer>",
       std::int64_t{-1500}},  // 2^64 - 1500, as registries write it
      {"<integer> +9223372036854775807\n</integer>", std::numeric_limits<std::int64_t>::max()},
      {"<integer>-9223372036854775808</integer>", std::numeric_limits<std::int64_t>::min()},
      {"<real>-0.1</real>", -0.1},
      {"<string>  a&lt;&#x42;&amp;<!-- no --><![CDATA[<array>]]> </string>", "  a<B&<array> "},
      {"\xef\xbb\xbf<string/>", ""},
      {"<string>caf\xe9</string>", "caf\xe9"},
      {"<data> AAEC\n /w== </data>", Data{0, 1, 2, 255}},
      {"<date>2001-01-02T00:00:01Z</date>", Date{86401}},
      {"<date>1970-01-01T00:00:00Z</date>", Date{-978307200}},
      {"<dict><key>a</key><array><dict /></array ><key>a</key><true/><key></key><integer>0</integer></dict>",
       PropertyDictionary{{"a", true}, {"", std::int64_t{0}}}},
      {"<?xml version=\"1.0\"?>\n<!DOCTYPE plist PUBLIC \"x\" \"y.dtd\">\n<!-- <array> "
       "-->\n<plist><array/></plist>\n",
       Array{}},
  };
  for (const auto& row : rows) EXPECT_EQ(decodePropertyList(row.xml), row.value) << row.xml;
}

TEST(PropertyListTest, RefusesWhatIsNoListWithinTheBounds) {
  const struct {
    std::string xml;
    const char* problem;
  } rows[] = {
      {"", "is empty"},
      {" \n", "is empty"},
      {"bplist00\xd1", "binary form"},
      {"No matching registry entries", "text outside"},
      {std::string("<string>a\0b</string>", 20), "NUL byte"},
      {"<string>a&#0;b</string>", "can't be read"},
      {"<plist/>", "holds no value"},
      {"<array><true/>", "ends inside an element"},
      {"<array><true/", "ends inside its markup"},
      {"<array></dict>", "closes an element that isn't open"},
      {"<true/><false/>", "more than one value"},
      {"<true/>junk", "text outside"},
      {"<dict><key>a</key></dict>", "key without a value"},
      {"<dict><true/></dict>", "don't alternate"},
      {"<array><key>a</key></array>", "key outside"},
      {"<string><array></array></string>", "element inside a text"},
      {"<set/>", "that property lists don't have"},
      {"<array a=\"/><array>\"></array>", "attributes"},
      {"<!--><array>-->", "malformed comment"},
      {"<!DOCTYPE plist [<!ENTITY a 'b'>]><true/>", "markup of its own"},
      {"<integer>abc</integer>", "malformed <integer>"},
      {"<integer>010</integer>", "malformed <integer>"},  // the library would take it for octal
      {"<integer>18446744073709551616</integer>", "malformed <integer>"},
      {"<integer>-9223372036854775809</integer>", "malformed <integer>"},
      {"<real>1e400</real>", "malformed <real>"},
      {"<real>nan</real>", "malformed <real>"},
      {"<date>2101-01-01T00:00:00Z</date>", "malformed <date>"},
      {"<data>A</data>", "malformed <data>"},
      {"<string>" + times(8000, "&amp;") + "</string>", "malformed <string>"},
      {times(maxPropertyListBytes + 1, " ") + "<true/>", "larger than"},
      {nested(200000), "nested more than 64 levels deep"},
      {times(200000, "<dict><key>a</key>"), "nested more than 64 levels deep"},
      {nested(maxPropertyListDepth + 1), "nested more than 64 levels deep"},
  };
  for (const auto& row : rows) {
    const auto error = thrownBy<PropertyListError>([&] { decodePropertyList(row.xml); });
    EXPECT_THAT(error.what(), HasSubstr(row.problem)) << row.xml.substr(0, 100);
  }
  EXPECT_NO_THROW(decodePropertyList("<plist>" + nested(maxPropertyListDepth) + "</plist>"));
}

TEST(PropertyListTest, ReadsBackWhatItWrote) {
  const PropertyValue value = PropertyDictionary{
      {"integers", Array{std::numeric_limits<std::int64_t>::min(), std::int64_t{-1}, std::int64_t{0},
                         std::numeric_limits<std::int64_t>::max()}},
      {"reals", Array{0.1, -1.0 / 3, 5e-324, 1.7976931348623157e308, 100.0}},
      {"texts <&>", Array{"", " a ", "\r\n\t<&>\"'", "\xe2\x82\xac", "caf\xe9"}},
      {"data", Array{Data{}, Data(100, 0xfe)}},
      {"dates", Array{Date{0}, Date{-978307200}, Date{2000000000}}},
      {"", Array{PropertyDictionary{}, true, false}},
  };
  EXPECT_EQ(decodePropertyList(encodePropertyList(value)), value);
  EXPECT_THAT(encodePropertyList(std::int64_t{-1500}), HasSubstr("<integer>-1500</integer>"));
}

TEST(PropertyListTest, DoesNotWriteWhatItCouldNotReadBack) {
  PropertyValue deep = Array{};
  for (int level = 1; level < maxPropertyListDepth; ++level) deep = Array{deep};
  EXPECT_EQ(decodePropertyList(encodePropertyList(deep)), deep);
  const PropertyValue rows[] = {std::string("a\0b", 3),
                                PropertyDictionary{{std::string("a\0b", 3), true}},
                                std::numeric_limits<double>::infinity(),
                                std::numeric_limits<double>::quiet_NaN(),
                                Date{1e10},
                                Date{std::numeric_limits<double>::quiet_NaN()},
                                Array{deep}};
  for (const PropertyValue& row : rows)
    EXPECT_THROW(encodePropertyList(row), PropertyListError) << row.value.index();
}

}  // namespace
}  // namespace quenzel::platform
