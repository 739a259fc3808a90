#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/SMCUserClient.hpp"

namespace quenzel {

/// Four ASCII characters as one number, the first in the most significant byte. A text of fewer than four
/// bytes packs to 0; bytes beyond the fourth do not count.
std::uint32_t packFourCharacterCode(std::string_view text);
std::string unpackFourCharacterCode(std::uint32_t code);

/// The value of the first four data bytes of a key of that type, in the type's own unit; none for an unknown
/// type. Integers are little-endian and fixed-point numbers big-endian: the controller mixes both. In a
/// fixed-point type's name the digits count the integer and the fraction bits ("sp78": sign, 7 and 8), "sp"
/// is signed and "fp" is not.
std::optional<double> decodeSMCValue(std::string_view type, const std::array<std::uint8_t, 4>& bytes);

/// What the controller says of a key.
struct SMCKeyInfoData {
  std::uint32_t dataSize = 0;  ///< 0 for a key that the machine does not have
  std::uint32_t dataType = 0;  ///< four-character code
  std::uint8_t dataAttributes = 0;

  bool operator==(const SMCKeyInfoData&) const = default;
};

/// The record that the controller's user client takes and returns, laid out as the kernel has it.
struct SMCExchangeRecord {
  struct Version {
    std::uint8_t major = 0;
    std::uint8_t minor = 0;
    std::uint8_t build = 0;
    std::uint8_t reserved = 0;
    std::uint16_t release = 0;
  };
  struct LimitData {
    std::uint16_t version = 0;
    std::uint16_t length = 0;
    std::uint32_t cpuLimit = 0;
    std::uint32_t gpuLimit = 0;
    std::uint32_t memoryLimit = 0;
  };

  static constexpr std::uint8_t readKeyBytes = 5;
  static constexpr std::uint8_t readKeyInfo = 9;

  std::uint32_t key = 0;
  Version version;
  LimitData limits;
  SMCKeyInfoData keyInfo;
  std::uint8_t result = 0;  ///< 0 is success, 0x84 a key that the machine does not have
  std::uint8_t status = 0;
  std::uint8_t command = 0;
  std::uint32_t data = 0;
  std::array<std::uint8_t, 32> bytes{};
};

static_assert(sizeof(SMCExchangeRecord) == platform::smcExchangeRecordSize);
static_assert(offsetof(SMCExchangeRecord, key) == 0);
static_assert(offsetof(SMCExchangeRecord, version) == 4);
static_assert(offsetof(SMCExchangeRecord, limits) == 12);
static_assert(offsetof(SMCExchangeRecord, keyInfo.dataSize) == 28);
static_assert(offsetof(SMCExchangeRecord, keyInfo.dataType) == 32);
static_assert(offsetof(SMCExchangeRecord, keyInfo.dataAttributes) == 36);
static_assert(offsetof(SMCExchangeRecord, result) == 40);
static_assert(offsetof(SMCExchangeRecord, status) == 41);
static_assert(offsetof(SMCExchangeRecord, command) == 42);
static_assert(offsetof(SMCExchangeRecord, data) == 44);
static_assert(offsetof(SMCExchangeRecord, bytes) == 48);

}  // namespace quenzel
