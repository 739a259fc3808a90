#include "Platform/PropertyList.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <type_traits>

#include <fmt/format.h>
#include <plist/plist.h>

#include "Base/Text.hpp"

namespace quenzel::platform {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

// The library undoes character references by moving the rest of the text once for each: the square of its
// length.
constexpr std::size_t kMaxTextWithReferences = 32768;

[[noreturn]] void refuse(std::string_view problem) {
  throw PropertyListError(fmt::format("The property list {}.", problem));
}

[[noreturn]] void refuseDepth() {
  refuse(fmt::format("is nested more than {} levels deep", maxPropertyListDepth));
}

std::string_view withoutBlanks(std::string_view text) { return trimmedASCII(text, kBlanks); }

bool allDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// What follows stands between the text and the library because the library guesses where it should refuse: it
// reads "abc" as 0, "010" as 8, an integer too large as -1, and a date outside 68 years of 2001 as some other
// day.

bool isInteger(std::string_view text) {
  const bool negative = text.starts_with('-');
  const std::string_view digits = text.substr(negative || text.starts_with('+') ? 1 : 0);
  if (digits.empty() || !allDigits(digits) || (digits.size() > 1 && digits.front() == '0')) return false;
  std::uint64_t magnitude = 0;
  if (std::from_chars(digits.data(), digits.data() + digits.size(), magnitude).ec != std::errc{})
    return false;
  return !negative || magnitude <= std::uint64_t{1} << 63;
}

bool isFiniteReal(std::string_view text) {
  const std::string terminated(text);
  char* end = nullptr;
  const double value = std::strtod(terminated.c_str(), &end);
  return !terminated.empty() && end == terminated.c_str() + terminated.size() && std::isfinite(value);
}

bool isDate(std::string_view text) {
  constexpr std::string_view form = "dddd-dd-ddTdd:dd:ddZ";
  if (text.size() != form.size()) return false;
  for (std::size_t i = 0; i < form.size(); ++i) {
    if (form[i] == 'd' ? !allDigits(text.substr(i, 1)) : text[i] != form[i]) return false;
  }
  const auto within = [&](std::size_t at, std::string_view low, std::string_view high) {
    const std::string_view part = text.substr(at, low.size());
    return low <= part && part <= high;
  };
  return within(0, "1933", "2068") && within(5, "01", "12") && within(8, "01", "31") &&
         within(11, "00", "23") && within(14, "00", "59") && within(17, "00", "59");
}

bool isBase64(std::string_view text) {
  std::size_t count = 0;
  std::size_t padding = 0;
  for (const char c : text) {
    if (kBlanks.find(c) != std::string_view::npos) continue;
    const bool isLetter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
    if (c == '=') {
      ++padding;
    } else if (padding > 0 || (!isLetter && c != '+' && c != '/')) {
      return false;
    }
    ++count;
  }
  return count % 4 == 0 && padding <= 2;
}

bool isBlank(std::string_view text) { return text.empty(); }

bool isText(std::string_view text) {
  return text.size() <= kMaxTextWithReferences || text.find('&') == std::string_view::npos;
}

/// The elements of plist(5): those that hold text say which text they can hold.
struct ElementType {
  std::string_view name;
  bool (*acceptsText)(std::string_view);  ///< of the text without the blanks around it; null for containers
  bool allowsMarkup = false;              ///< comments and CDATA sections may stand in the text
};

constexpr std::array<ElementType, 11> kElementTypes{{{"plist", nullptr},
                                                     {"dict", nullptr},
                                                     {"array", nullptr},
                                                     {"key", isText, true},
                                                     {"string", isText, true},
                                                     {"integer", isInteger},
                                                     {"real", isFiniteReal},
                                                     {"date", isDate},
                                                     {"data", isBase64},
                                                     {"true", isBlank},
                                                     {"false", isBlank}}};

const ElementType& elementType(std::string_view name) {
  for (const ElementType& type : kElementTypes) {
    if (type.name == name) return type;
  }
  refuse("holds an element that property lists don't have");
}

bool isContainer(const ElementType& type) { return type.name == "dict" || type.name == "array"; }

/// Walks over the markup and refuses whatever the library could read in another way than this walk does, so
/// that the depth counted here is the depth of its tree: elements nest properly, only <plist> has attributes,
/// texts stand where texts belong, and there is one value.
class MarkupCheck {
 public:
  explicit MarkupCheck(std::string_view xml) : xml_(xml) {}

  void run() {
    while (position_ < xml_.size()) {
      const std::size_t markup = std::min(xml_.find('<', position_), xml_.size());
      takeText(xml_.substr(position_, markup - position_));
      position_ = markup;
      if (markup < xml_.size()) takeMarkup();
    }
    if (!open_.empty()) refuse("ends inside an element");
    if (!hasValue_) refuse("holds no value");
  }

 private:
  struct OpenElement {
    const ElementType* type;
    std::size_t textStart;
    bool expectsValue = false;  ///< of a dictionary: a key has been read
  };

  /// The element whose text is being read, or null between elements.
  const ElementType* textElement() const {
    return open_.empty() || open_.back().type->acceptsText == nullptr ? nullptr : open_.back().type;
  }

  void takeText(std::string_view text) const {
    if (textElement() == nullptr && !withoutBlanks(text).empty()) refuse("has text outside its elements");
  }

  void takeMarkup() {
    const ElementType* text = textElement();
    const std::string_view rest = xml_.substr(position_);
    if (rest.starts_with("<?")) {
      if (text != nullptr) refuse("has markup inside a plain text");
      skip("<?", "?>");
    } else if (rest.starts_with("<!--")) {
      if (text != nullptr && !text->allowsMarkup) refuse("has markup inside a plain text");
      // Readers differ on whether the opening's dashes may close the comment.
      if (rest.starts_with("<!-->") || rest.starts_with("<!--->")) refuse("has a malformed comment");
      skip("<!--", "-->");
    } else if (rest.starts_with("<![CDATA[")) {
      if (text == nullptr || !text->allowsMarkup) refuse("has a CDATA section outside a text");
      skip("<![CDATA[", "]]>");
    } else if (rest.starts_with("<!DOCTYPE")) {
      if (!open_.empty() || hasValue_) refuse("declares its type after its start");
      if (skip("<!DOCTYPE", ">").find('[') != std::string_view::npos) refuse("declares markup of its own");
    } else {
      takeTag(skip("<", ">"));
    }
  }

  /// Moves past the closing and returns what stands between the two.
  std::string_view skip(std::string_view opening, std::string_view closing) {
    const std::size_t start = position_ + opening.size();
    const std::size_t end = xml_.find(closing, start);
    if (end == std::string_view::npos) refuse("ends inside its markup");
    position_ = end + closing.size();
    return xml_.substr(start, end - start);
  }

  void takeTag(std::string_view tag) {
    if (tag.find('<') != std::string_view::npos) refuse("has a tag inside a tag");
    const std::size_t tagStart = position_ - tag.size() - 2;
    if (tag.starts_with('/')) {
      close(tag.substr(1, tag.find_last_not_of(kBlanks)), tagStart);
      return;
    }
    const bool closesItself = tag.ends_with('/');
    if (closesItself) tag.remove_suffix(1);
    const std::string_view name = tag.substr(0, tag.find_first_of(kBlanks));
    if (name != "plist" && !withoutBlanks(tag.substr(name.size())).empty())
      refuse("has attributes on a value");
    open(elementType(name));
    if (closesItself) close(name, position_);
  }

  void open(const ElementType& type) {
    if (type.name == "plist") {
      if (!open_.empty() || hasValue_) refuse("holds another property list");
    } else if (open_.empty() || open_.back().type->name == "plist") {
      if (hasValue_) refuse("holds more than one value");
      if (type.name == "key") refuse("has a key outside a dictionary");
      hasValue_ = true;
    } else {
      takeChild(open_.back(), type);
    }
    if (isContainer(type) && ++depth_ > maxPropertyListDepth) refuseDepth();
    open_.push_back({&type, position_});
  }

  static void takeChild(OpenElement& parent, const ElementType& child) {
    if (parent.type->acceptsText != nullptr) refuse("has an element inside a text");
    const bool isKey = child.name == "key";
    if (parent.type->name == "array") {
      if (isKey) refuse("has a key outside a dictionary");
      return;
    }
    if (isKey == parent.expectsValue) refuse("has a dictionary whose keys and values don't alternate");
    parent.expectsValue = isKey;
  }

  void close(std::string_view name, std::size_t tagStart) {
    if (open_.empty() || open_.back().type->name != name) refuse("closes an element that isn't open");
    const OpenElement& element = open_.back();
    if (element.expectsValue) refuse("has a key without a value");
    if (const auto acceptsText = element.type->acceptsText) {
      const std::string_view text = xml_.substr(element.textStart, tagStart - element.textStart);
      if (!acceptsText(withoutBlanks(text))) refuse(fmt::format("holds a malformed <{}>", name));
    }
    if (isContainer(*element.type)) --depth_;
    open_.pop_back();
  }

  std::string_view xml_;
  std::size_t position_ = 0;
  std::vector<OpenElement> open_;
  int depth_ = 0;  ///< dictionaries and arrays among them
  bool hasValue_ = false;
};

// libplist 2.3 added signed integers, and from then on writes what plist_new_uint made without a sign; 2.7
// replaced the calls for dates. Arguments of a template's type let each call stand only where the library
// declares it.

template <typename Integer>
plist_t newInteger(Integer integer) {
  if constexpr (requires { plist_new_int(integer); }) {
    return plist_new_int(integer);
  } else {
    return plist_new_uint(static_cast<std::uint64_t>(integer));
  }
}

constexpr std::int64_t k2001InUnixTime = 978307200;

template <typename Seconds>
plist_t newDate(Seconds secondsSince2001) {
  if constexpr (requires { plist_new_unix_date(secondsSince2001); }) {
    return plist_new_unix_date(secondsSince2001 + k2001InUnixTime);
  } else {
    return plist_new_date(secondsSince2001, 0);
  }
}

template <typename Node>
std::int64_t secondsSince2001(Node node) {
  std::int64_t unixTime = 0;
  if constexpr (requires { plist_get_unix_date_val(node, &unixTime); }) {
    plist_get_unix_date_val(node, &unixTime);
    return unixTime - k2001InUnixTime;
  } else {
    std::int32_t seconds = 0;
    std::int32_t microseconds = 0;  // none: the text that was read has whole seconds
    plist_get_date_val(node, &seconds, &microseconds);
    return seconds;
  }
}

struct PlistFree {
  void operator()(void* node) const { plist_free(node); }
};
using Plist = std::unique_ptr<void, PlistFree>;

struct CFree {
  void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using CMemory = std::unique_ptr<T, CFree>;

PropertyValue valueOf(plist_t node);

PropertyValue::Array arrayOf(plist_t node) {
  PropertyValue::Array array;
  plist_array_iter created = nullptr;
  plist_array_new_iter(node, &created);
  const CMemory<void> iterator(created);
  for (;;) {
    plist_t item = nullptr;
    plist_array_next_item(node, iterator.get(), &item);
    if (item == nullptr) return array;
    array.push_back(valueOf(item));
  }
}

PropertyDictionary dictionaryOf(plist_t node) {
  PropertyDictionary dictionary;
  plist_dict_iter created = nullptr;
  plist_dict_new_iter(node, &created);
  const CMemory<void> iterator(created);
  for (;;) {
    char* ownedKey = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(node, iterator.get(), &ownedKey, &item);
    const CMemory<char> key(ownedKey);
    if (item == nullptr || key == nullptr) return dictionary;
    dictionary.insert_or_assign(key.get(), valueOf(item));
  }
}

PropertyValue integerOf(plist_t node, void (*read)(plist_t, std::uint64_t*)) {
  std::uint64_t bits = 0;
  read(node, &bits);
  return static_cast<std::int64_t>(bits);
}

PropertyValue dateOf(plist_t node) {
  return PropertyValue::Date{static_cast<double>(secondsSince2001(node))};
}

PropertyValue valueOf(plist_t node) {
  std::uint64_t length = 0;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t boolean = 0;
      plist_get_bool_val(node, &boolean);
      return boolean != 0;
    }
    case PLIST_UINT:
      return integerOf(node, plist_get_uint_val);
    case PLIST_UID:
      return integerOf(node, plist_get_uid_val);
    case PLIST_REAL: {
      double real = 0;
      plist_get_real_val(node, &real);
      return real;
    }
    case PLIST_STRING: {
      const char* text = plist_get_string_ptr(node, &length);
      return text == nullptr ? std::string() : std::string(text, length);
    }
    case PLIST_DATA: {
      const char* bytes = plist_get_data_ptr(node, &length);
      return bytes == nullptr ? PropertyValue::Data() : PropertyValue::Data(bytes, bytes + length);
    }
    case PLIST_DATE:
      return dateOf(node);
    case PLIST_ARRAY:
      return arrayOf(node);
    case PLIST_DICT:
      return dictionaryOf(node);
    default:
      refuse("holds a value of an unknown type");
  }
}

const char* terminated(const std::string& text) {
  if (text.find('\0') != std::string::npos) refuse("can't hold a text with a NUL byte");
  return text.c_str();
}

/// Builds the library's tree. Depth is bounded for the same reason as on reading.
class NodeBuilder {
 public:
  static Plist build(const PropertyValue& value) { return std::visit(NodeBuilder(1), value.value); }

  Plist operator()(bool boolean) const { return Plist(plist_new_bool(boolean ? 1 : 0)); }
  Plist operator()(std::int64_t integer) const { return Plist(newInteger(integer)); }
  Plist operator()(double real) const {
    if (!std::isfinite(real)) refuse("can't hold a number that isn't finite");
    return Plist(plist_new_real(real));
  }
  Plist operator()(const std::string& text) const { return Plist(plist_new_string(terminated(text))); }
  Plist operator()(const PropertyValue::Data& data) const {
    return Plist(plist_new_data(reinterpret_cast<const char*>(data.data()), data.size()));
  }
  Plist operator()(const PropertyValue::Date& date) const {
    const double whole = std::floor(date.secondsSince2001);
    if (!(std::abs(whole) < std::numeric_limits<std::int32_t>::max()))
      refuse("can't hold a date so far from 2001");
    return Plist(newDate(static_cast<std::int32_t>(whole)));
  }
  Plist operator()(const PropertyValue::Array& array) const {
    requireDepth();
    Plist node(plist_new_array());
    for (const PropertyValue& item : array) plist_array_append_item(node.get(), child(item).release());
    return node;
  }
  Plist operator()(const PropertyDictionary& dictionary) const {
    requireDepth();
    Plist node(plist_new_dict());
    for (const auto& [key, item] : dictionary) {
      Plist entry = child(item);
      plist_dict_set_item(node.get(), terminated(key), entry.get());
      static_cast<void>(entry.release());  // the dictionary owns it now
    }
    return node;
  }

 private:
  explicit NodeBuilder(int depth) : depth_(depth) {}

  void requireDepth() const {
    if (depth_ > maxPropertyListDepth) refuseDepth();
  }

  Plist child(const PropertyValue& item) const { return std::visit(NodeBuilder(depth_ + 1), item.value); }

  int depth_;
};

}  // namespace

PropertyValue decodePropertyList(std::string_view xml) {
  constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";
  if (xml.starts_with(byteOrderMark)) xml.remove_prefix(byteOrderMark.size());
  if (withoutBlanks(xml).empty()) refuse("is empty");
  if (xml.starts_with("bplist")) refuse("is in the binary form, which isn't read here");
  if (xml.size() > maxPropertyListBytes) refuse(fmt::format("is larger than {} bytes", maxPropertyListBytes));
  if (xml.find('\0') != std::string_view::npos) refuse("holds a NUL byte");
  MarkupCheck(xml).run();

  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
  const Plist owner(root);
  if (root == nullptr) refuse("can't be read");
  return valueOf(root);
}

std::string encodePropertyList(const PropertyValue& value) {
  const Plist root = NodeBuilder::build(value);
  char* written = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(root.get(), &written, &length);
  const CMemory<char> owner(written);
  if (written == nullptr) refuse("can't be written");
  return {written, length};
}

}  // namespace quenzel::platform
