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

std::string withText(const std::string& element, const std::string& text) {
  return "<" + element + ">" + text + "</" + element + ">";
}

TEST(PropertyListTest, ReadsEveryTypeOfValue) {
  const std::pair<std::string, PropertyValue> rows[] = {
      {"<true/>", true},
      {"<plist version=\"1.0\"><false></false></plist>", false},
      {"<real>-0.1</real>", -0.1},
      {"<integer>18446744073709550116</integer>", Integer{-1500}},  // 2^64 - 1500, as registries write it
      {"<integer> +9223372036854775807\n</integer>", largest},
      {"<integer>-9223372036854775808</integer>", smallest},
      {"<string>  a&lt;&#x42;&amp;<!-- no --><![CDATA[<array>]]> </string>", "  a<B&<array> "},
      {"<string>" + times(6552, "&amp;") + "12345678</string>",
       times(6552, "&") + "12345678"},  // 32768 bytes
      {"\xef\xbb\xbf<string/>", ""},
      {"<string>caf\xe9</string>", "caf\xe9"},
      {"<date>2001-01-02T00:00:01Z</date>", Date{86401}},
      {"<date>1933-01-01T00:00:00Z</date>", Date{-2145916800}},
      {"<date>2068-12-31T23:59:59Z</date>", Date{2145916799}},
      {"<data> AAEC\n /w== </data>", Data{0, 1, 2, 255}},
      {"<data>+/8=</data>", Data{0xfb, 0xff}},
      {"<dict><key>a</key><array><dict /></array ><key>a</key><true/><key></key><integer>0</integer></dict>",
       PropertyDictionary{{"a", true}, {"", Integer{0}}}},
      {"<?xml version=\"1.0\"?>\n<!DOCTYPE plist PUBLIC \"x\" \"y.dtd\">\n<!-- <array> "
       "-->\n<plist><array/></plist>\n",
       Array{}},
      {std::string(maxPropertyListBytes - 7, ' ') + "<true/>", true},
  };
  for (const auto& [xml, value] : rows) EXPECT_EQ(decodePropertyList(xml), value) << xml.substr(0, 100);
}

TEST(PropertyListTest, RefusesWhatIsNoListWithinTheBounds) {
  using Texts = std::vector<std::string>;
  std::vector<std::pair<std::string, Texts>> rows = {
      {"is empty", {" \n"}},
      {"binary form", {"bplist00\xd1"}},
      {"text outside", {"No matching registry entries", "<true/>junk", "<dict>a<key>a</key><true/></dict>"}},
      {"NUL", {std::string("<string>a\0b</string>", 20)}},
      {"can't be read", {"<string>a&#0;b</string>"}},
      {"ends inside an element", {"<array><true/>"}},
      {"ends inside its markup", {"<array><true/", "<!-- ", "<string><![CDATA[", "<?x"}},
      {"closes an element that isn't", {"<array></dict>", "</array>"}},
      {"more than one value", {"<true/><false/>"}},
      {"another property list", {"<true/><plist/>", "<plist><plist/></plist>"}},
      {"without a value", {"<dict><key>a</key></dict>"}},
      {"don't alternate", {"<dict><true/></dict>", "<dict><key>a</key><key>b</key></dict>"}},
      {"holds no value", {"<plist/>"}},
      {"inside a text", {"<string><array/></string>"}},
      {"tag inside a tag", {"<array<true/></array>"}},
      {"that property lists don't have", {"<set/>"}},
      {"attributes", {"<array a=\"/><array>\"></array>"}},
      {"malformed comment", {"<!--><array>-->", "<!---><array>-->"}},
      {"CDATA section outside", {"<![CDATA[a]]><true/>", "<integer><![CDATA[1]]></integer>"}},
      {"inside a plain text", {"<string><?x?></string>", "<integer>1<!-- --></integer>"}},
      {"its type after its start", {"<true/><!DOCTYPE plist>", "<array><!DOCTYPE plist></array>"}},
      {"markup of its own", {"<!DOCTYPE plist [<!ENTITY a 'b'>]><true/>"}},
      {"larger than 8388608 bytes", {std::string(maxPropertyListBytes - 6, ' ') + "<true/>"}},
      {"nested more than 64 levels deep",
       {times(200000, "<dict><key>a</key>"), nested(maxPropertyListDepth + 1)}},
  };
  const std::pair<std::string, Texts> malformed[] = {
      // The library would take a leading 0 for octal.
      {"integer", {"", "+", "-", "abc", "1 2", "01", "18446744073709551616", "-9223372036854775809"}},
      {"real", {"", "1x", "1e400", "nan"}},
      {"data", {"A", "AA=A", "A===", "AA*=", "AAAAA"}},
      {"date",
       {"2001-01-02T00:00:01", "2001/01/02T00:00:01Z", "x001-01-02T00:00:01Z", "1932-12-31T23:59:59Z",
        "2069-01-01T00:00:00Z", "2001-00-02T00:00:01Z", "2001-13-02T00:00:01Z", "2001-01-00T00:00:01Z",
        "2001-01-32T00:00:01Z", "2001-01-02T24:00:01Z", "2001-01-02T00:60:01Z", "2001-01-02T00:00:60Z"}},
      {"true", {"1"}},
      {"string", {times(6552, "&amp;") + "123456789"}},  // 32769 bytes
  };
  for (const auto& [element, texts] : malformed) {
    for (const std::string& text : texts)
      rows.push_back({"holds a malformed <" + element + ">", {withText(element, text)}});
  }
  for (const auto& [problem, texts] : rows) {
    for (const std::string& xml : texts) {
      const auto error = thrownBy<PropertyListError>([&] { decodePropertyList(xml); });
      EXPECT_THAT(error.what(), HasSubstr(problem)) << xml.substr(0, 100);
    }
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
