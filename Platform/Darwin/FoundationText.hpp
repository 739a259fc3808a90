#pragma once

#include <optional>
#include <string>

#import <Foundation/Foundation.h>

#include "Platform/Darwin/PropertyConversion.hpp"

namespace quenzel::platform {

/// The text as Foundation has it; bytes that are not UTF-8 are taken for Latin-1, so that there is always
/// one.
inline NSString* foundationText(const std::string& text) {
  NSString* const converted =
      [[NSString alloc] initWithBytes:text.data() length:text.size() encoding:NSUTF8StringEncoding];
  if (converted) return converted;
  return [[NSString alloc] initWithBytes:text.data() length:text.size() encoding:NSISOLatin1StringEncoding];
}

/// The text in UTF-8; none for nil.
inline std::optional<std::string> textOf(NSString* text) { return textOf((__bridge CFTypeRef)text); }

}  // namespace quenzel::platform
