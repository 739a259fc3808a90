#pragma once

#include <string>

#import <Foundation/Foundation.h>

namespace quenzel::platform {

/// The text as Foundation has it; bytes that are not UTF-8 are taken for Latin-1, so that there is always
/// one.
inline NSString* foundationText(const std::string& text) {
  NSString* const converted =
      [[NSString alloc] initWithBytes:text.data() length:text.size() encoding:NSUTF8StringEncoding];
  if (converted) return converted;
  return [[NSString alloc] initWithBytes:text.data() length:text.size() encoding:NSISOLatin1StringEncoding];
}

}  // namespace quenzel::platform
