#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quenzel {

// The one home of text handling. Texts are UTF-8; a byte that belongs to no valid sequence counts as a
// character of its own that is neither blank nor a letter. "White space" is the Unicode property White_Space,
// line breaks included (https://www.unicode.org/Public/UCD/latest/ucd/PropList.txt). Pure functions; views
// point into their argument.

/// Without leading and trailing white space and line breaks.
std::string_view trimmed(std::string_view text);
/// Without leading white space and line breaks.
std::string_view trimmedLeft(std::string_view text);
/// Whether there is nothing else than white space and line breaks.
bool isBlank(std::string_view text);

/// Without the bytes `blanks`, by default ASCII's blanks, at its ends: for files and tools of the system,
/// which know no others.
constexpr std::string_view trimmedASCII(std::string_view text, std::string_view blanks = " \t\n\v\f\r") {
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

/// Whether the text begins with a white-space character.
bool startsWithWhitespace(std::string_view text);

/// The lines of a text: it is cut at every newline character (LF, VT, FF, CR, CR LF, U+0085, U+2028, U+2029),
/// and empty lines are dropped.
std::vector<std::string_view> splitLines(std::string_view text);

/// The same without a list: takes the first non-empty line off `rest`; empty when there is none left.
std::string_view nextLine(std::string_view& rest);

/// The pieces between newline characters "\n" alone, empty ones included: one more than there are newlines.
std::vector<std::string_view> splitAtLineFeeds(std::string_view text);

/// The pieces between white space, empty ones dropped.
std::vector<std::string_view> splitWhitespace(std::string_view text);

/// The first of those pieces; empty when there is none.
std::string_view firstWord(std::string_view text);

/// Lower case by the Unicode mappings that depend on no language, each character by itself (so a capital
/// sigma at the end of a word becomes no final sigma); ill-formed bytes stay as they are.
std::string lowercased(std::string_view text);

/// Whether both are equal but for the case of ASCII letters.
bool equalsIgnoringASCIICase(std::string_view left, std::string_view right);

/// Whether every byte is ASCII, so that bytes, characters and (CR LF apart) user-perceived characters are the
/// same.
bool isASCIIText(std::string_view text);

/// Byte offset of the n-th user-perceived character (extended grapheme cluster, Unicode Standard Annex 29),
/// or the length of the text when it has no more than n. Costs one pass over the part that is skipped; a text
/// whose first n + 1 bytes are ASCII costs a few nanoseconds.
std::size_t graphemeOffset(std::string_view text, std::size_t n);

/// Byte offset up to which a text takes no more than so many columns of a terminal: East Asian wide
/// characters take two, marks that combine none.
std::size_t columnOffset(std::string_view text, std::size_t columns);

/// Number of user-perceived characters.
std::size_t graphemeCount(std::string_view text);

/// The bytes as valid UTF-8: each ill-formed sequence (the maximal subpart, as the Unicode Standard
/// recommends) becomes U+FFFD. Valid input is returned as it is.
std::string repairedUTF8(std::string bytes);

/// The text as one line that is safe to show on a terminal: control characters, line breaks and characters
/// that turn the writing direction become "?", ill-formed bytes U+FFFD.
std::string printableLine(std::string_view text);

/// The text with "?" for each user-perceived character that is not ASCII.
std::string asciiLine(std::string_view text);

/// A number of things, in words: "1 process", "2 processes".
std::string quantity(std::int64_t count, std::string_view one, std::string_view many);

/// What follows the last "/" that is not at the end: "ps" of "/bin/ps" and of "/bin/ps/".
std::string_view lastPathComponent(std::string_view path);

}  // namespace quenzel
