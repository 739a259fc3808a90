#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "Base/PointInTime.hpp"

// The one home of JSON (RFC 8259). A record's keys are its field names; a point in time is a number, the
// seconds since 2001-01-01T00:00:00Z; an enumeration is its string; an absent optional is left out. What is
// read comes as nlohmann::json, whose objects are trees that no document can make slow; what is written is
// ordered as it is put in.
//
// Beside each record stand its two functions, decodeX(json, path) and encodeX(record), both made from one
// table of fields: see jsonField.

namespace quenzel {

/// Where a value stands in its document, as "processes[3].drainW". A link of a chain of locals: it costs
/// nothing until it is rendered, and must not outlive its parent nor its key.
class JSONPath {
 public:
  /// The document itself.
  JSONPath() = default;
  JSONPath(const JSONPath& parent, std::string_view key) : parent_(&parent), step_(key) {}
  JSONPath(const JSONPath& parent, std::size_t index) : parent_(&parent), step_(index) {}

  /// Empty for the document itself.
  std::string text() const;

 private:
  const JSONPath* parent_ = nullptr;
  std::variant<std::string_view, std::size_t> step_;
};

/// A document that can't be read, or a value that can't be written. what() begins with the path of the
/// culprit.
class JSONCodingError final : public std::runtime_error {
 public:
  enum class Kind {
    syntax,         ///< not a JSON document
    limitExceeded,  ///< larger or nested deeper than maxJSONBytes and maxJSONDepth
    missingKey,
    wrongType,
    outOfRange,    ///< a number that its field can't hold
    invalidValue,  ///< a string that is none of its enumeration's
    notFinite,     ///< JSON has no form for it
    invalidText,   ///< not UTF-8
  };

  static JSONCodingError syntax(const std::string& problem);
  static JSONCodingError limitExceeded(const std::string& problem);
  static JSONCodingError missingKey(const JSONPath& path);
  /// @param expected as in "expected a number"
  static JSONCodingError wrongType(const JSONPath& path, std::string_view expected,
                                   const nlohmann::json& found);
  static JSONCodingError outOfRange(const JSONPath& path, const nlohmann::json& found);
  static JSONCodingError invalidValue(const JSONPath& path, std::string_view found);
  static JSONCodingError notFinite(const JSONPath& path);
  static JSONCodingError invalidText(const JSONPath& path);

  Kind kind() const noexcept { return kind_; }

 private:
  JSONCodingError(Kind kind, const JSONPath& path, std::string_view problem);

  Kind kind_;
};

/// A snapshot of a thousand processes has about 400,000 bytes and four levels.
inline constexpr std::size_t maxJSONBytes = std::size_t{64} * 1024 * 1024;
inline constexpr int maxJSONDepth = 256;

/// @throws JSONCodingError: syntax, limitExceeded
nlohmann::json parseJSON(std::string_view bytes);

enum class JSONStyle {
  compact,  ///< on one line, no blanks
  pretty,   ///< for people: indented by two blanks
};

/// Doubles are written with the fewest digits that read back to the same value.
/// @throws JSONCodingError: notFinite for a number that is infinite or none, invalidText for text that isn't
/// UTF-8
std::string encodeJSON(const nlohmann::ordered_json& value, JSONStyle style = JSONStyle::compact);

// Single values. Numbers come only from numbers and booleans only from booleans; 5.0 is an integer and 5.5 is
// none.

/// @throws JSONCodingError: wrongType, outOfRange
template <typename T>
T decodeJSON(const nlohmann::json& json, const JSONPath& path) = delete;
template <>
bool decodeJSON<bool>(const nlohmann::json& json, const JSONPath& path);
template <>
std::int64_t decodeJSON<std::int64_t>(const nlohmann::json& json, const JSONPath& path);
template <>
std::uint64_t decodeJSON<std::uint64_t>(const nlohmann::json& json, const JSONPath& path);
template <>
double decodeJSON<double>(const nlohmann::json& json, const JSONPath& path);
template <>
std::string decodeJSON<std::string>(const nlohmann::json& json, const JSONPath& path);
template <>
PointInTime decodeJSON<PointInTime>(const nlohmann::json& json, const JSONPath& path);

template <typename T>
nlohmann::ordered_json encodeJSONValue(const T& value) {
  return value;
}
inline nlohmann::ordered_json encodeJSONValue(const PointInTime& time) { return time.secondsSince2001; }

/// @param fromRawValue finds the case of a string, if there is one
template <typename Enumeration>
Enumeration decodeJSONEnumeration(const nlohmann::json& json, const JSONPath& path,
                                  std::optional<Enumeration> (*fromRawValue)(std::string_view)) {
  const std::string text = decodeJSON<std::string>(json, path);
  if (const std::optional<Enumeration> found = fromRawValue(text)) return *found;
  throw JSONCodingError::invalidValue(path, text);
}

// Lists.

template <typename Decode>
auto decodeJSONList(const nlohmann::json& json, const JSONPath& path, Decode decodeElement) {
  if (!json.is_array()) throw JSONCodingError::wrongType(path, "a list", json);
  std::vector<std::invoke_result_t<Decode, const nlohmann::json&, const JSONPath&>> list;
  list.reserve(json.size());
  for (const nlohmann::json& element : json)
    list.push_back(decodeElement(element, JSONPath(path, list.size())));
  return list;
}

template <typename T, typename Encode>
nlohmann::ordered_json encodeJSONList(const std::vector<T>& list, Encode encodeElement) {
  nlohmann::ordered_json::array_t array;
  array.reserve(list.size());
  for (const T& element : list) array.push_back(encodeElement(element));
  return array;
}

// Records.

/// What a member of type T is made of: itself, or the T of an optional or of a list.
template <typename T>
struct JSONElement {
  using Type = T;
  static constexpr bool isOptional = false;
  static constexpr bool isList = false;
};
template <typename T>
struct JSONElement<std::optional<T>> {
  using Type = T;
  static constexpr bool isOptional = true;
  static constexpr bool isList = false;
};
template <typename T>
struct JSONElement<std::vector<T>> {
  using Type = T;
  static constexpr bool isOptional = false;
  static constexpr bool isList = true;
};

/// One row of a record's table.
template <typename Record, typename Member, typename Decode, typename Encode>
struct JSONField {
  const char* key;
  Member Record::*member;
  Decode decode;  ///< of the member, or of one element of an optional or a list
  Encode encode;
  bool mayBeMissing;  ///< then the record keeps the value that it was made with
};

/// A field that must be there, unless the member is an optional. An explicit null reads like a missing key
/// where the key may be missing, and fails where it may not.
template <typename Record, typename Member, typename Decode, typename Encode>
constexpr auto jsonField(const char* key, Member Record::*member, Decode decode, Encode encode) {
  return JSONField<Record, Member, Decode, Encode>{key, member, decode, encode,
                                                   JSONElement<Member>::isOptional};
}
template <typename Record, typename Member>
constexpr auto jsonField(const char* key, Member Record::*member) {
  using Element = typename JSONElement<Member>::Type;
  const auto encode = [](const Element& element) { return encodeJSONValue(element); };
  return jsonField(key, member, &decodeJSON<Element>, encode);
}
/// A field that may be missing: the record's own initial value is the default.
template <typename... Arguments>
constexpr auto defaultedJSONField(Arguments... arguments) {
  auto field = jsonField(arguments...);
  field.mayBeMissing = true;
  return field;
}

template <typename Record, typename Member, typename Decode, typename Encode>
void decodeJSONField(const nlohmann::json& object, const JSONPath& path,
                     const JSONField<Record, Member, Decode, Encode>& field, Record& record) {
  const JSONPath fieldPath(path, field.key);
  const auto entry = object.find(field.key);
  if (entry == object.end() && !field.mayBeMissing) throw JSONCodingError::missingKey(fieldPath);
  if (entry == object.end() || (entry->is_null() && field.mayBeMissing)) return;
  if constexpr (JSONElement<Member>::isList) {
    record.*field.member = decodeJSONList(*entry, fieldPath, field.decode);
  } else {
    record.*field.member = field.decode(*entry, fieldPath);
  }
}

template <typename Record, typename Member, typename Decode, typename Encode>
void encodeJSONField(const Record& record, const JSONField<Record, Member, Decode, Encode>& field,
                     nlohmann::ordered_json& object) {
  const Member& member = record.*field.member;
  if constexpr (JSONElement<Member>::isList) {
    object[field.key] = encodeJSONList(member, field.encode);
  } else if constexpr (JSONElement<Member>::isOptional) {
    if (member) object[field.key] = field.encode(*member);
  } else {
    object[field.key] = field.encode(member);
  }
}

/// Keys that are no field's are passed over.
/// @param fields a tuple of jsonField
template <typename Record, typename Fields>
Record decodeJSONRecord(const nlohmann::json& json, const JSONPath& path, const Fields& fields) {
  if (!json.is_object()) throw JSONCodingError::wrongType(path, "an object", json);
  Record record{};
  std::apply([&](const auto&... field) { (decodeJSONField(json, path, field, record), ...); }, fields);
  return record;
}

/// An object with the fields in the table's order.
template <typename Record, typename Fields>
nlohmann::ordered_json encodeJSONRecord(const Record& record, const Fields& fields) {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  std::apply([&](const auto&... field) { (encodeJSONField(record, field, object), ...); }, fields);
  return object;
}

}  // namespace quenzel
