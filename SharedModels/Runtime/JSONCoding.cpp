#include "SharedModels/Runtime/JSONCoding.hpp"

#include <cmath>
#include <limits>
#include <utility>

#include <fmt/format.h>

#include "Base/Text.hpp"

namespace quenzel {
namespace {

/// How much of an offending text an error repeats.
constexpr std::size_t longestQuote = 60;

std::string_view nameOfType(const nlohmann::json& json) {
  switch (json.type()) {
    case nlohmann::json::value_t::null:
      return "null";
    case nlohmann::json::value_t::object:
      return "an object";
    case nlohmann::json::value_t::array:
      return "a list";
    case nlohmann::json::value_t::string:
      return "a string";
    case nlohmann::json::value_t::boolean:
      return "a boolean";
    default:
      return "a number";
  }
}

/// The library's own text without its "[json.exception.parse_error.101] ".
std::string problemOf(const nlohmann::json::exception& error) {
  const std::string_view text = error.what();
  const std::size_t end = text.find("] ");
  return std::string(end == std::string_view::npos ? text : text.substr(end + 2));
}

/// Follows nothing but strings and brackets, as they stand in every document that has no syntax error before
/// them.
void requireWithinLimits(std::string_view bytes) {
  if (bytes.size() > maxJSONBytes) {
    throw JSONCodingError::limitExceeded(fmt::format("larger than {} bytes", maxJSONBytes));
  }
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char c = bytes[i];
    if (c == '\0') throw JSONCodingError::syntax(fmt::format("a NUL byte at byte {}", i + 1));
    if (inString) {
      if (c == '\\') ++i;
      if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == ']' || c == '}') {
      --depth;
    } else if ((c == '[' || c == '{') && ++depth > maxJSONDepth) {
      throw JSONCodingError::limitExceeded(fmt::format("nested more than {} levels deep", maxJSONDepth));
    }
  }
}

template <typename Integer>
Integer decodeInteger(const nlohmann::json& json, const JSONPath& path) {
  if (json.is_number_float()) {
    const double real = json.get<double>();
    if (std::trunc(real) != real) throw JSONCodingError::wrongType(path, "an integer", json);
    // The largest integer is no double, the power of two above it is.
    const double lowest = static_cast<double>(std::numeric_limits<Integer>::min());
    const double limit = std::ldexp(1.0, std::numeric_limits<Integer>::digits);
    if (real >= lowest && real < limit) return static_cast<Integer>(real);
  } else if (json.is_number_unsigned()) {
    const auto integer = json.get<std::uint64_t>();
    if (std::in_range<Integer>(integer)) return static_cast<Integer>(integer);
  } else if (json.is_number_integer()) {
    const auto integer = json.get<std::int64_t>();
    if (std::in_range<Integer>(integer)) return static_cast<Integer>(integer);
  } else {
    throw JSONCodingError::wrongType(path, "an integer", json);
  }
  throw JSONCodingError::outOfRange(path, json);
}

void requireFinite(const nlohmann::ordered_json& value, const JSONPath& path) {
  if (value.is_number_float() && !std::isfinite(value.get<double>())) throw JSONCodingError::notFinite(path);
  if (value.is_array()) {
    for (std::size_t i = 0; i < value.size(); ++i) requireFinite(value[i], JSONPath(path, i));
  } else if (value.is_object()) {
    for (const auto& [key, member] : value.get_ref<const nlohmann::ordered_json::object_t&>()) {
      requireFinite(member, JSONPath(path, key));
    }
  }
}

bool isUTF8(const nlohmann::ordered_json& text) {
  try {
    text.dump();
    return true;
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

/// Finds out, after the library has said that there is one, which text isn't UTF-8. A key is reported as its
/// object.
void requireUTF8(const nlohmann::ordered_json& value, const JSONPath& path) {
  if (value.is_string() && !isUTF8(value)) throw JSONCodingError::invalidText(path);
  if (value.is_array()) {
    for (std::size_t i = 0; i < value.size(); ++i) requireUTF8(value[i], JSONPath(path, i));
  } else if (value.is_object()) {
    for (const auto& [key, member] : value.get_ref<const nlohmann::ordered_json::object_t&>()) {
      if (!isUTF8(key)) throw JSONCodingError::invalidText(path);
      requireUTF8(member, JSONPath(path, key));
    }
  }
}

}  // namespace

std::string JSONPath::text() const {
  if (parent_ == nullptr) return {};
  std::string text = parent_->text();
  if (const auto* index = std::get_if<std::size_t>(&step_)) return text + fmt::format("[{}]", *index);
  if (!text.empty()) text += '.';
  return text.append(std::get<std::string_view>(step_));
}

JSONCodingError::JSONCodingError(Kind kind, const JSONPath& path, std::string_view problem)
    : std::runtime_error([&] {
        const std::string where = path.text();
        return fmt::format("{}: {}", where.empty() ? "JSON document" : where, problem);
      }()),
      kind_(kind) {}

JSONCodingError JSONCodingError::syntax(const std::string& problem) { return {Kind::syntax, {}, problem}; }

JSONCodingError JSONCodingError::limitExceeded(const std::string& problem) {
  return {Kind::limitExceeded, {}, problem};
}

JSONCodingError JSONCodingError::missingKey(const JSONPath& path) {
  return {Kind::missingKey, path, "missing"};
}

JSONCodingError JSONCodingError::wrongType(const JSONPath& path, std::string_view expected,
                                           const nlohmann::json& found) {
  return {Kind::wrongType, path, fmt::format("expected {}, found {}", expected, nameOfType(found))};
}

JSONCodingError JSONCodingError::outOfRange(const JSONPath& path, const nlohmann::json& found) {
  return {Kind::outOfRange, path, fmt::format("the number {} is out of range", found.dump())};
}

JSONCodingError JSONCodingError::invalidValue(const JSONPath& path, std::string_view found) {
  return {Kind::invalidValue, path,
          fmt::format("\"{}\" is none of the possible values", printableLine(found.substr(0, longestQuote)))};
}

JSONCodingError JSONCodingError::notFinite(const JSONPath& path) {
  return {Kind::notFinite, path, "a number that isn't finite has no JSON form"};
}

JSONCodingError JSONCodingError::invalidText(const JSONPath& path) {
  return {Kind::invalidText, path, "the text isn't UTF-8"};
}

nlohmann::json parseJSON(std::string_view bytes) {
  requireWithinLimits(bytes);
  try {
    return nlohmann::json::parse(bytes);
  } catch (const nlohmann::json::exception& error) {
    throw JSONCodingError::syntax(problemOf(error));
  }
}

std::string encodeJSON(const nlohmann::ordered_json& value, JSONStyle style) {
  requireFinite(value, {});
  try {
    return value.dump(style == JSONStyle::pretty ? 2 : -1);
  } catch (const nlohmann::json::exception&) {
    requireUTF8(value, {});
    throw;
  }
}

template <>
bool decodeJSON<bool>(const nlohmann::json& json, const JSONPath& path) {
  if (!json.is_boolean()) throw JSONCodingError::wrongType(path, "a boolean", json);
  return json.get<bool>();
}

template <>
std::int64_t decodeJSON<std::int64_t>(const nlohmann::json& json, const JSONPath& path) {
  return decodeInteger<std::int64_t>(json, path);
}

template <>
std::uint64_t decodeJSON<std::uint64_t>(const nlohmann::json& json, const JSONPath& path) {
  return decodeInteger<std::uint64_t>(json, path);
}

template <>
double decodeJSON<double>(const nlohmann::json& json, const JSONPath& path) {
  if (!json.is_number()) throw JSONCodingError::wrongType(path, "a number", json);
  return json.get<double>();
}

template <>
std::string decodeJSON<std::string>(const nlohmann::json& json, const JSONPath& path) {
  if (!json.is_string()) throw JSONCodingError::wrongType(path, "a string", json);
  return json.get<std::string>();
}

template <>
PointInTime decodeJSON<PointInTime>(const nlohmann::json& json, const JSONPath& path) {
  return {decodeJSON<double>(json, path)};
}

}  // namespace quenzel
