#include "Platform/Darwin/PropertyConversion.hpp"

#include <cstddef>
#include <utility>
#include <vector>

namespace quenzel::platform {
namespace {

std::optional<PropertyValue> numberOf(CFNumberRef number) {
  if (CFNumberIsFloatType(number)) {
    double real = 0;
    if (CFNumberGetValue(number, kCFNumberDoubleType, &real)) return PropertyValue(real);
    return std::nullopt;
  }
  std::int64_t integer = 0;
  if (CFNumberGetValue(number, kCFNumberSInt64Type, &integer)) return PropertyValue(integer);
  return std::nullopt;
}

PropertyValue::Data dataOf(CFDataRef data) {
  const UInt8* const bytes = CFDataGetBytePtr(data);
  return bytes ? PropertyValue::Data(bytes, bytes + CFDataGetLength(data)) : PropertyValue::Data();
}

PropertyValue::Array arrayOf(CFArrayRef array) {
  PropertyValue::Array elements;
  for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
    if (auto element = propertyValueOf(CFArrayGetValueAtIndex(array, i)))
      elements.push_back(std::move(*element));
  }
  return elements;
}

}  // namespace

std::optional<std::string> textOf(CFTypeRef value) {
  const auto string = referenceAs<CFStringRef>(value, CFStringGetTypeID());
  if (!string) return std::nullopt;
  const CFIndex length = CFStringGetLength(string);
  std::string text(static_cast<std::size_t>(CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8)),
                   '\0');
  CFIndex used = 0;
  CFStringGetBytes(string, CFRangeMake(0, length), kCFStringEncodingUTF8, '?', false,
                   reinterpret_cast<UInt8*>(text.data()), static_cast<CFIndex>(text.size()), &used);
  text.resize(static_cast<std::size_t>(used));
  return text;
}

std::optional<PropertyDictionary> propertyDictionaryOf(CFTypeRef value) {
  const auto dictionary = referenceAs<CFDictionaryRef>(value, CFDictionaryGetTypeID());
  if (!dictionary) return std::nullopt;
  const auto count = static_cast<std::size_t>(CFDictionaryGetCount(dictionary));
  std::vector<const void*> keys(count);
  std::vector<const void*> values(count);
  CFDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
  PropertyDictionary entries;
  for (std::size_t i = 0; i < count; ++i) {
    auto key = textOf(keys[i]);
    auto entry = propertyValueOf(values[i]);
    if (key && entry) entries.insert_or_assign(std::move(*key), std::move(*entry));
  }
  return entries;
}

std::optional<PropertyValue> propertyValueOf(CFTypeRef value) {
  if (auto text = textOf(value)) return PropertyValue(std::move(*text));
  if (auto entries = propertyDictionaryOf(value)) return PropertyValue(std::move(*entries));
  if (const auto boolean = referenceAs<CFBooleanRef>(value, CFBooleanGetTypeID()))
    return PropertyValue(CFBooleanGetValue(boolean) != 0);
  if (const auto number = referenceAs<CFNumberRef>(value, CFNumberGetTypeID())) return numberOf(number);
  if (const auto array = referenceAs<CFArrayRef>(value, CFArrayGetTypeID()))
    return PropertyValue(arrayOf(array));
  if (const auto data = referenceAs<CFDataRef>(value, CFDataGetTypeID())) return PropertyValue(dataOf(data));
  if (const auto date = referenceAs<CFDateRef>(value, CFDateGetTypeID()))
    return PropertyValue(PropertyValue::Date{CFDateGetAbsoluteTime(date)});
  return std::nullopt;
}

}  // namespace quenzel::platform
