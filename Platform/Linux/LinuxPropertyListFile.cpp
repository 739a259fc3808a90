#include "Platform/Linux/LinuxPropertyListFile.hpp"

#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/PropertyList.hpp"

namespace quenzel::platform {

std::optional<PropertyDictionary> propertyListFile(const std::string& path) {
  const std::optional<std::string> text = regularFileText(path);
  if (!text) return std::nullopt;
  try {
    const PropertyValue list = decodePropertyList(*text);
    const PropertyDictionary* const dictionary = list.as<PropertyDictionary>();
    return dictionary ? std::optional(*dictionary) : std::nullopt;
  } catch (const PropertyListError&) {
    return std::nullopt;
  }
}

}  // namespace quenzel::platform
