#pragma once

#include <optional>
#include <string>

#include "Platform/PropertyValue.hpp"

namespace quenzel::platform {

/// The dictionary that a property-list file holds; none when the file is missing, not a regular file, can't
/// be read or holds anything else. The file may be any user's.
std::optional<PropertyDictionary> propertyListFile(const std::string& path);

}  // namespace quenzel::platform
