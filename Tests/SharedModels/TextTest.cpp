#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SharedModels/Runtime/Text.hpp"

namespace quenzel {
namespace {

using ::testing::ElementsAre;

TEST(Text, TrimsUnicodeWhiteSpaceAndNothingElse) {
  struct Row {
    std::string_view text;
    std::string_view trimmed;
  };
  const Row rows[] = {
      {"", ""},
      {" \t\r\n\v\f", ""},
      {" a b ", "a b"},
      {"\u00A0\u2003\u3000x\u0085\u2028\u2029", "x"},
      {"\u200Bx\u200B", "\u200Bx\u200B"},  // a zero-width space is no White_Space
      {"\xFF x \xFF", "\xFF x \xFF"},
      {" \u00E9 ", "\u00E9"},
      {"x\x85", "x\x85"},  // a lone byte that only looks like U+0085
  };
  for (const Row& row : rows) EXPECT_EQ(trimmed(row.text), row.trimmed) << row.text;
  EXPECT_TRUE(startsWithWhitespace("\u2003x"));
  EXPECT_FALSE(startsWithWhitespace("x "));
  EXPECT_FALSE(startsWithWhitespace(""));
}

TEST(Text, SplitsAtEveryNewlineCharacterOrAtLineFeedsAlone) {
  EXPECT_THAT(splitLines("a\nb\r\nc\rd\ve\ff\u0085g\u2028h\u2029i\n\n"),
              ElementsAre("a", "b", "c", "d", "e", "f", "g", "h", "i"));
  EXPECT_THAT(splitLines("\u00C5\u2027x"), ElementsAre("\u00C5\u2027x"));  // bytes that begin like a newline
  EXPECT_THAT(splitLines("\xE2\x80"), ElementsAre("\xE2\x80"));
  EXPECT_THAT(splitLines("\r\n\n"), ElementsAre());
  EXPECT_THAT(splitAtLineFeeds("a\r\n\nb\vc"), ElementsAre("a\r", "", "b\vc"));
  EXPECT_THAT(splitAtLineFeeds(""), ElementsAre(""));
  EXPECT_THAT(splitAtLineFeeds("a\n"), ElementsAre("a", ""));
}

TEST(Text, SplitsWordsAndPaths) {
  EXPECT_THAT(splitWhitespace(" a\u00A0 b\n\u3000"), ElementsAre("a", "b"));
  EXPECT_EQ(firstWord("\t25.03 12.4"), "25.03");
  EXPECT_EQ(firstWord("  "), "");
  struct Row {
    std::string_view path;
    std::string_view last;
  };
  const Row rows[] = {{"/bin/ps", "ps"}, {"/bin/ps/", "ps"}, {"ps", "ps"}, {"/", "/"}, {"", ""}};
  for (const Row& row : rows) EXPECT_EQ(lastPathComponent(row.path), row.last) << row.path;
}

TEST(Text, LowersWholeStringsWhateverTheLanguage) {
  EXPECT_EQ(lowercased("LowPowerMODE 1"), "lowpowermode 1");
  EXPECT_EQ(lowercased("ÀÉÎ ΑΣ Я"), "àéî ασ я");
  EXPECT_EQ(lowercased("\u0130"), "i\u0307");
  EXPECT_EQ(lowercased("A\xFF"), "a\xFF");
  EXPECT_TRUE(equalsIgnoringASCIICase("mW", "MW"));
  EXPECT_FALSE(equalsIgnoringASCIICase("mW", "mWh"));
}

TEST(Text, CountsUserPerceivedCharacters) {
  struct Row {
    std::string_view text;
    std::size_t n;
    std::size_t offset;
  };
  const Row rows[] = {
      {"abc", 0, 0},
      {"abc", 2, 2},
      {"abc", 9, 3},
      {"e\u0301x", 1, 3},                      // a letter and its accent
      {"ae\u0301", 1, 1},                      // the accent does not move what stands before its letter
      {"\U0001F469\u200D\U0001F4BB!", 1, 11},  // woman, joiner, computer
      {"\U0001F1E9\U0001F1EA\U0001F1EB\U0001F1F7x", 2, 16},  // two flags
      {"\r\nx", 1, 2},                                       // one character
      {"\xFF\xFEz", 2, 2},                                   // ill-formed bytes count one each
  };
  for (const Row& row : rows)
    EXPECT_EQ(graphemeOffset(row.text, row.n), row.offset) << row.text << ' ' << row.n;
  EXPECT_EQ(graphemeCount("e\u0301\U0001F1E9\U0001F1EAx"), 3U);
}

TEST(Text, RepairsIllFormedUTF8) {
  struct Row {
    std::string_view bytes;
    std::string_view repaired;
  };
  const Row rows[] = {
      {"plain", "plain"},
      {"gr\u00FC\u00DFe \U0001F50B", "gr\u00FC\u00DFe \U0001F50B"},
      {"a\xFFz", "a\uFFFDz"},
      {"\xE2\x82", "\uFFFD"},  // a cut sequence is one replacement
      {"\xE2\x82x", "\uFFFDx"},
      {"\xF0\x9F\x94", "\uFFFD"},
      {"\xC0\xAF", "\uFFFD\uFFFD"},                      // an overlong form
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},            // a surrogate
      {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // beyond U+10FFFF
      {"\x80\u00E9", "\uFFFD\u00E9"},
  };
  for (const Row& row : rows) EXPECT_EQ(repairedUTF8(std::string(row.bytes)), row.repaired) << row.repaired;
}

}  // namespace
}  // namespace quenzel
