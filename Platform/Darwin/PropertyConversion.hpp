#pragma once

#include <optional>
#include <string>

#include <CoreFoundation/CoreFoundation.h>

#include "Platform/PropertyValue.hpp"

namespace quenzel::platform {

// Core Foundation's property types as ours. Types are looked at before values: what the registry and the
// power sources hold under one key changes between machines.

/// The value as a reference of that type; null for null and for a value of another type.
template <typename Reference>
Reference referenceAs(CFTypeRef value, CFTypeID type) {
  return value && CFGetTypeID(value) == type ? static_cast<Reference>(value) : nullptr;
}

/// The text in UTF-8, what is no character replaced by "?"; none for anything but a string.
std::optional<std::string> textOf(CFTypeRef value);

/// None for null and for what is no property list's type. Entries and elements of such types are left out.
std::optional<PropertyValue> propertyValueOf(CFTypeRef value);

/// The same for a dictionary; none for anything else.
std::optional<PropertyDictionary> propertyDictionaryOf(CFTypeRef value);

}  // namespace quenzel::platform
