#include "Base/Text.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <utf8proc.h>

namespace quenzel {
namespace {

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

bool isASCII(unsigned char byte) { return byte < 0x80; }

bool isWhitespace(std::int32_t codepoint) {
  switch (codepoint) {
    case 0x20:
    case 0x85:
    case 0xA0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
      return true;
    default:
      return (codepoint >= 0x09 && codepoint <= 0x0D) || (codepoint >= 0x2000 && codepoint <= 0x200A);
  }
}

bool isASCIIWhitespace(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

/// Controls (C0, DEL, C1), line and paragraph separators, and the bidirectional controls of Unicode Annex 9.
bool isUnprintable(std::int32_t codepoint) {
  return codepoint < 0x20 || (codepoint >= 0x7F && codepoint < 0xA0) ||
         (codepoint >= 0x2028 && codepoint <= 0x202E) || (codepoint >= 0x2066 && codepoint <= 0x2069) ||
         codepoint == 0x200E || codepoint == 0x200F || codepoint == 0x61C;
}

struct Character {
  std::int32_t codepoint;  ///< -1 for an ill-formed byte
  std::size_t length;
};

Character characterAt(std::string_view text, std::size_t offset) {
  const auto first = static_cast<unsigned char>(text[offset]);
  if (isASCII(first)) return {first, 1};
  std::int32_t codepoint = -1;
  const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + offset),
                                       static_cast<utf8proc_ssize_t>(text.size() - offset), &codepoint);
  return length > 0 ? Character{codepoint, static_cast<std::size_t>(length)} : Character{-1, 1};
}

/// The last character of a text that is not empty.
Character lastCharacter(std::string_view text) {
  std::size_t start = text.size() - 1;
  while (start > 0 && text.size() - start < 4 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80)
    --start;
  const Character character = characterAt(text, start);
  return start + character.length == text.size() ? character : Character{-1, 1};
}

/// Length of the newline character at the offset, 0 when there is none.
std::size_t newlineLength(std::string_view text, std::size_t offset) {
  const auto byteAt = [&](std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
  };
  switch (byteAt(offset)) {
    case '\r':
      return byteAt(offset + 1) == '\n' ? 2 : 1;
    case '\n':
    case '\v':
    case '\f':
      return 1;
    case 0xC2:
      return byteAt(offset + 1) == 0x85 ? 2 : 0;
    case 0xE2:
      return byteAt(offset + 1) == 0x80 && (byteAt(offset + 2) == 0xA8 || byteAt(offset + 2) == 0xA9) ? 3 : 0;
    default:
      return 0;
  }
}

/// Eight bytes at once; the order within the word does not matter to the tests below.
std::uint64_t wordAt(const char* bytes) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof(word));
  return word;
}

constexpr std::uint64_t everyByte = 0x0101010101010101U;
constexpr std::uint64_t highBits = 0x80 * everyByte;

/// Offset of the first newline character, or the length of the text. Skips eight bytes at a time while they
/// are all printable ASCII, as nearly all text is.
std::size_t newlineOffset(std::string_view text) {
  std::size_t offset = 0;
  while (offset < text.size()) {
    while (offset + sizeof(std::uint64_t) <= text.size()) {
      const std::uint64_t word = wordAt(text.data() + offset);
      const bool mayHoldNewline = ((word | (word - ('\r' + 1) * everyByte)) & highBits) != 0;
      if (mayHoldNewline) break;
      offset += sizeof(word);
    }
    const std::size_t end = std::min(offset + sizeof(std::uint64_t), text.size());
    for (; offset < end; ++offset) {
      if (newlineLength(text, offset) > 0) return offset;
    }
  }
  return text.size();
}

bool allASCII(const char* bytes, std::size_t count) {
  std::uint64_t seen = 0;
  std::size_t index = 0;
  for (; index + 4 * sizeof(seen) <= count; index += 4 * sizeof(seen)) {
    seen |= wordAt(bytes + index) | wordAt(bytes + index + 8) | wordAt(bytes + index + 16) |
            wordAt(bytes + index + 24);
  }
  for (; index < count; ++index) seen |= static_cast<unsigned char>(bytes[index]);
  return (seen & highBits) == 0;
}

/// Offset behind the cluster that begins at `offset`.
std::size_t clusterEnd(std::string_view text, std::size_t offset) {
  Character previous = characterAt(text, offset);
  offset += previous.length;
  utf8proc_int32_t state = 0;
  while (offset < text.size()) {
    const Character next = characterAt(text, offset);
    const bool breaks = previous.codepoint < 0 || next.codepoint < 0 ||
                        utf8proc_grapheme_break_stateful(previous.codepoint, next.codepoint, &state);
    if (breaks) break;
    previous = next;
    offset += next.length;
  }
  return offset;
}

}  // namespace

std::string_view trimmedLeft(std::string_view text) {
  while (!text.empty()) {
    std::size_t blanks = 0;
    while (blanks < text.size() && isASCIIWhitespace(text[blanks])) ++blanks;
    text.remove_prefix(blanks);
    if (text.empty() || isASCII(static_cast<unsigned char>(text.front()))) break;
    const Character character = characterAt(text, 0);
    if (!isWhitespace(character.codepoint)) break;
    text.remove_prefix(character.length);
  }
  return text;
}

std::string_view trimmed(std::string_view text) {
  text = trimmedLeft(text);
  while (!text.empty()) {
    std::size_t end = text.size();
    while (end > 0 && isASCIIWhitespace(text[end - 1])) --end;
    text = text.substr(0, end);
    if (text.empty() || isASCII(static_cast<unsigned char>(text.back()))) break;
    const Character character = lastCharacter(text);
    if (!isWhitespace(character.codepoint)) break;
    text.remove_suffix(character.length);
  }
  return text;
}

bool isBlank(std::string_view text) { return trimmedLeft(text).empty(); }

bool isASCIIText(std::string_view text) { return allASCII(text.data(), text.size()); }

bool startsWithWhitespace(std::string_view text) {
  return !text.empty() && isWhitespace(characterAt(text, 0).codepoint);
}

std::string_view nextLine(std::string_view& rest) {
  while (!rest.empty()) {
    const std::size_t end = newlineOffset(rest);
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end);
    if (!rest.empty()) rest.remove_prefix(newlineLength(rest, 0));
    if (!line.empty()) return line;
  }
  return {};
}

std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  for (std::string_view line = nextLine(text); !line.empty(); line = nextLine(text)) lines.push_back(line);
  return lines;
}

std::vector<std::string_view> splitAtLineFeeds(std::string_view text) {
  std::vector<std::string_view> pieces;
  for (;;) {
    const std::size_t end = text.find('\n');
    pieces.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return pieces;
    text.remove_prefix(end + 1);
  }
}

std::string_view firstWord(std::string_view text) {
  text = trimmedLeft(text);
  std::size_t end = 0;
  while (end < text.size() && !isASCIIWhitespace(text[end])) {
    if (isASCII(static_cast<unsigned char>(text[end]))) {
      ++end;
      continue;
    }
    const Character character = characterAt(text, end);
    if (isWhitespace(character.codepoint)) break;
    end += character.length;
  }
  return text.substr(0, end);
}

std::vector<std::string_view> splitWhitespace(std::string_view text) {
  std::vector<std::string_view> words;
  for (std::string_view word = firstWord(text); !word.empty(); word = firstWord(text)) {
    words.push_back(word);
    text.remove_prefix(static_cast<std::size_t>(word.data() + word.size() - text.data()));
  }
  return words;
}

std::string lowercased(std::string_view text) {
  std::string lower;
  lower.reserve(text.size());
  for (std::size_t offset = 0; offset < text.size();) {
    const auto byte = static_cast<unsigned char>(text[offset]);
    if (isASCII(byte)) {  // nearly every one is, and the tables are slow
      lower += static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte);
      ++offset;
      continue;
    }
    const Character character = characterAt(text, offset);
    if (character.codepoint < 0) {
      lower += text[offset];
    } else if (character.codepoint == 0x130) {
      lower += "i\xCC\x87";  // the one unconditional lower-case mapping to two characters (SpecialCasing.txt)
    } else {
      utf8proc_uint8_t bytes[4];
      const auto length = utf8proc_encode_char(utf8proc_tolower(character.codepoint), bytes);
      lower.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
    }
    offset += character.length;
  }
  return lower;
}

bool equalsIgnoringASCIICase(std::string_view left, std::string_view right) {
  const auto lower = [](char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter;
  };
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [&](char a, char b) { return lower(a) == lower(b); });
}

std::size_t graphemeOffset(std::string_view text, std::size_t n) {
  // Between ASCII characters every boundary is a cluster boundary but the one inside CR LF; and the character
  // at n must be ASCII too, because a combining mark there would belong to the character before it.
  const std::size_t looked = std::min(text.size(), n == std::string_view::npos ? n : n + 1);
  if (allASCII(text.data(), looked) && !std::memchr(text.data(), '\r', looked))
    return std::min(n, text.size());
  std::size_t offset = 0;
  for (; n > 0 && offset < text.size(); --n) offset = clusterEnd(text, offset);
  return offset;
}

std::size_t columnOffset(std::string_view text, std::size_t columns) {
  std::size_t offset = 0;
  for (std::size_t taken = 0; offset < text.size();) {
    const Character character = characterAt(text, offset);
    taken += character.codepoint < 0 ? 1 : static_cast<std::size_t>(utf8proc_charwidth(character.codepoint));
    if (taken > columns) break;
    offset += character.length;
  }
  return offset;
}

std::string asciiLine(std::string_view text) {
  std::string line;
  for (std::size_t offset = 0; offset < text.size();) {
    const std::size_t end = clusterEnd(text, offset);
    line += end == offset + 1 && isASCII(static_cast<unsigned char>(text[offset])) ? text[offset] : '?';
    offset = end;
  }
  return line;
}

std::size_t graphemeCount(std::string_view text) {
  std::size_t count = 0;
  for (std::size_t offset = 0; offset < text.size(); ++count) offset = clusterEnd(text, offset);
  return count;
}

std::string repairedUTF8(std::string bytes) {
  if (allASCII(bytes.data(), bytes.size())) return bytes;
  const std::string_view text = bytes;
  std::string repaired;
  std::size_t clean = 0;  // all before it stands in `repaired`
  for (std::size_t offset = 0; offset < text.size();) {
    const Character character = characterAt(text, offset);
    if (character.codepoint >= 0) {
      offset += character.length;
      continue;
    }
    repaired.append(text, clean, offset - clean);
    repaired += replacementCharacter;
    // The maximal subpart: as many continuation bytes as could still have completed a sequence.
    const auto lead = static_cast<unsigned char>(text[offset]);
    const std::size_t expected = lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 && lead < 0xF0 ? 3 : 1;
    const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    std::size_t length = 1;
    while (length + 1 < expected && offset + length < text.size()) {
      const auto next = static_cast<unsigned char>(text[offset + length]);
      if (next < (length == 1 ? lowest : 0x80U) || next > (length == 1 ? highest : 0xBFU)) break;
      ++length;
    }
    offset += length;
    clean = offset;
  }
  if (clean == 0) return bytes;
  repaired.append(text, clean);
  return repaired;
}

std::string printableLine(std::string_view text) {
  const std::string repaired = repairedUTF8(std::string(text));
  std::string line;
  line.reserve(repaired.size());
  for (std::size_t offset = 0; offset < repaired.size();) {
    const Character character = characterAt(repaired, offset);
    if (isUnprintable(character.codepoint)) {
      line += '?';
    } else {
      line.append(repaired, offset, character.length);
    }
    offset += character.length;
  }
  return line;
}

std::string quantity(std::int64_t count, std::string_view one, std::string_view many) {
  return std::to_string(count).append(1, ' ').append(count == 1 ? one : many);
}

std::string_view lastPathComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos || path.size() == 1 ? path : path.substr(slash + 1);
}

}  // namespace quenzel
