#pragma once

#include <cstdint>
#include <string_view>

namespace quenzel::testing {

/// The hash (FNV-1a, 64 bits) of a published text that is too long to stand in a test and must never change.
constexpr std::uint64_t fingerprint(std::string_view text) {
  std::uint64_t hash = 0xCBF29CE484222325U;
  for (const char byte : text) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3U;
  return hash;
}

}  // namespace quenzel::testing
