#pragma once

#include <optional>
#include <string>

#include "Platform/PropertyValue.hpp"

namespace quenzel::platform {

/// The dictionary that a property-list file holds; none when the file is missing, can't be read or holds
/// anything else.
std::optional<PropertyDictionary> propertyListFile(const std::string& path);

}  // namespace quenzel::platform
