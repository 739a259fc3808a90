#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Base/Text.hpp"

namespace quenzel {
namespace {

using ::testing::ElementsAre;
using TextPair = std::pair<std::string_view, std::string_view>;

TEST(Text, TrimsUnicodeWhiteSpaceAndNothingElse) {
  for (const char* blank : {"", " \t\r\n\v\f", "\u00A0\u2003\u3000\u0085\u2028\u2029"}) {
    // Neither a zero-width space nor a lone byte that only looks like U+0085 is White_Space.
    for (const char* inside : {"", "a b", "\u200Bx\u200B", "\xFF x \xFF", "\u00E9", "x\x85"})
      EXPECT_EQ(trimmed(std::string(blank) + inside + blank), inside) << blank << inside;
  }
  EXPECT_TRUE(startsWithWhitespace("\u2003x"));
  EXPECT_FALSE(startsWithWhitespace("x ") || startsWithWhitespace(""));
}

TEST(Text, SplitsAtEveryNewlineCharacterOrAtLineFeedsAlone) {
  EXPECT_THAT(splitLines("a\nb\r\nc\rd\ve\ff\u0085g\u2028h\u2029i\n\n"),
              ElementsAre("a", "b", "c", "d", "e", "f", "g", "h", "i"));
  EXPECT_THAT(splitLines("\u00C5\u2027x"), ElementsAre("\u00C5\u2027x"));  // bytes that begin like a newline
  EXPECT_THAT(splitLines("\xE2\x80"), ElementsAre("\xE2\x80"));
  EXPECT_THAT(splitLines("\r\n\n"), ElementsAre());
  EXPECT_THAT(splitAtLineFeeds("a\r\n\nb\vc\n"), ElementsAre("a\r", "", "b\vc", ""));
  EXPECT_THAT(splitAtLineFeeds(""), ElementsAre(""));
}

TEST(Text, SplitsWordsAndPaths) {
  EXPECT_THAT(splitWhitespace(" a\u00A0 b\n\u3000"), ElementsAre("a", "b"));
  EXPECT_EQ(firstWord("\t25.03 12.4"), "25.03");
  EXPECT_EQ(firstWord("  "), "");
  const TextPair rows[] = {{"/bin/ps", "ps"}, {"/bin/ps/", "ps"}, {"ps", "ps"}, {"/", "/"}, {"", ""}};
  for (const auto& [path, last] : rows) EXPECT_EQ(lastPathComponent(path), last) << path;
}

TEST(Text, LowersWholeStringsWhateverTheLanguage) {
  const TextPair rows[] = {{"LowPowerMODE 1", "lowpowermode 1"},
                           {"ÀÉÎ ΑΣ Я", "àéî ασ я"},
                           {"\u0130", "i\u0307"},
                           {"A\xFF", "a\xFF"}};
  for (const auto& [text, lower] : rows) EXPECT_EQ(lowercased(text), lower);
  EXPECT_TRUE(equalsIgnoringASCIICase("mW", "MW"));
  EXPECT_FALSE(equalsIgnoringASCIICase("mW", "mWh"));
}

TEST(Text, CountsUserPerceivedCharacters) {
  const std::tuple<std::string_view, std::size_t, std::size_t> rows[] = {
      {"abc", 2, 2},
      {"abc", 9, 3},
      {"e\u0301x", 1, 3},                                    // a letter and its accent
      {"\U0001F469\u200D\U0001F4BB!", 1, 11},                // woman, joiner, computer
      {"\U0001F1E9\U0001F1EA\U0001F1EB\U0001F1F7x", 2, 16},  // two flags
      {"\r\nx", 1, 2},                                       // one character
      {"\xFF\xFEz", 2, 2}};                                  // ill-formed bytes count one each
  for (const auto& [text, n, offset] : rows) EXPECT_EQ(graphemeOffset(text, n), offset) << text << ' ' << n;
  EXPECT_EQ(graphemeCount("e\u0301\U0001F1E9\U0001F1EAx"), 3U);
}

TEST(Text, RepairsIllFormedUTF8) {
  // An overlong form, a surrogate and what lies beyond U+10FFFF count each byte; a cut sequence is one.
  EXPECT_EQ(repairedUTF8("gr\u00FC\u00DFe \U0001F50B|a\xFFz|\x80\u00E9|\xC0\xAF|\xE2\x82|\xE2\x82x|"
                         "\xED\xA0\x80|\xF4\x90\x80\x80|\xF0\x9F\x94"),
            "gr\u00FC\u00DFe \U0001F50B|a\uFFFDz|\uFFFD\u00E9|\uFFFD\uFFFD|\uFFFD|\uFFFDx|"
            "\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD\uFFFD|\uFFFD");
}

}  // namespace
}  // namespace quenzel
