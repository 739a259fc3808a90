#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Platform/PropertyValue.hpp"

namespace quenzel::platform {

/// A property list that can't be read; what() says why.
class PropertyListError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Bounds that hold before the library that parses sees a byte: it frees a tree by recursion, so a list nested
// some ten thousand deep would overflow the stack. Real lists of this system are some kilobytes and four
// levels.
inline constexpr std::size_t maxPropertyListBytes = std::size_t{8} << 20;
inline constexpr int maxPropertyListDepth = 64;

/// Reads an XML property list. The binary form is refused: objects shared inside it unfold without bound, and
/// none of the sources read here writes it.
/// @throws PropertyListError for anything else than a list within the bounds.
PropertyValue decodePropertyList(std::string_view xml);

/// Writes the XML form.
std::string encodePropertyList(const PropertyValue& value);

}  // namespace quenzel::platform
