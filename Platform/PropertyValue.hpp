#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quenzel::platform {

/// One value of a property list: what Info.plist files, the I/O registry and power-source descriptions are
/// made of (plist(5)). Integers are signed: a registry that writes -1500 as its unsigned 64-bit wrap means
/// -1500.
struct PropertyValue {
  using Data = std::vector<std::uint8_t>;
  using Array = std::vector<PropertyValue>;
  using Dictionary = std::map<std::string, PropertyValue, std::less<>>;
  struct Date {
    double secondsSince2001 = 0;
    bool operator==(const Date&) const = default;
  };

  std::variant<bool, std::int64_t, double, std::string, Data, Date, Array, Dictionary> value;

  PropertyValue(bool boolean) : value(boolean) {}                   // NOLINT(google-explicit-constructor)
  PropertyValue(std::int64_t integer) : value(integer) {}           // NOLINT(google-explicit-constructor)
  PropertyValue(double real) : value(real) {}                       // NOLINT(google-explicit-constructor)
  PropertyValue(std::string text) : value(std::move(text)) {}       // NOLINT(google-explicit-constructor)
  PropertyValue(const char* text) : value(std::string(text)) {}     // NOLINT(google-explicit-constructor)
  PropertyValue(Data data) : value(std::move(data)) {}              // NOLINT(google-explicit-constructor)
  PropertyValue(Date date) : value(date) {}                         // NOLINT(google-explicit-constructor)
  PropertyValue(Array array) : value(std::move(array)) {}           // NOLINT(google-explicit-constructor)
  PropertyValue(Dictionary entries) : value(std::move(entries)) {}  // NOLINT(google-explicit-constructor)

  /// The value as T, or null when it is of another type.
  template <typename T>
  const T* as() const {
    return std::get_if<T>(&value);
  }

  // Defaulted inside the class it would be asked for while the class is incomplete: libc++ then takes a
  // vector of these values for one that may be moved by copying its bytes.
  friend bool operator==(const PropertyValue& left, const PropertyValue& right) {
    return left.value == right.value;
  }
};

using PropertyDictionary = PropertyValue::Dictionary;

/// The entry of that key, or null.
inline const PropertyValue* find(const PropertyDictionary& dictionary, std::string_view key) {
  const auto entry = dictionary.find(key);
  return entry == dictionary.end() ? nullptr : &entry->second;
}

}  // namespace quenzel::platform
