#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "Platform/PropertyList.hpp"

using namespace quenzel::platform;

/// What reads is written, and reads back equal.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view xml(reinterpret_cast<const char*>(data), size);
  std::optional<PropertyValue> value;
  try {
    value = decodePropertyList(xml);
  } catch (const PropertyListError&) {
    return 0;
  }
  if (decodePropertyList(encodePropertyList(*value)) != *value) std::abort();
  return 0;
}
