#include "MetricsCollectors/SMCValue.hpp"

#include <algorithm>
#include <bit>

#include "Base/Text.hpp"

namespace quenzel {
namespace {

struct FixedPointType {
  std::string_view name;
  double divisor;
};

constexpr FixedPointType fixedPointTypes[] = {
    {"fp1f", 32768}, {"fp2e", 16384}, {"fp3d", 8192}, {"fp4c", 4096}, {"fp5b", 2048}, {"fp6a", 1024},
    {"fp79", 512},   {"fp88", 256},   {"fpa6", 64},   {"fpc4", 16},   {"fpe2", 4},    {"sp1e", 16384},
    {"sp2d", 8192},  {"sp3c", 4096},  {"sp4b", 2048}, {"sp5a", 1024}, {"sp69", 512},  {"sp78", 256},
    {"sp87", 128},   {"sp96", 64},    {"spa5", 32},   {"spb4", 16},   {"spf0", 1},
};

std::optional<double> decodeFixedPoint(std::string_view type, std::uint8_t high, std::uint8_t low) {
  const auto* known = std::find_if(std::begin(fixedPointTypes), std::end(fixedPointTypes),
                                   [&](const FixedPointType& candidate) { return candidate.name == type; });
  if (known == std::end(fixedPointTypes)) return std::nullopt;
  const auto number = static_cast<std::uint16_t>(high << 8 | low);
  const bool isSigned = type.starts_with("sp");
  return (isSigned ? static_cast<double>(static_cast<std::int16_t>(number)) : static_cast<double>(number)) /
         known->divisor;
}

}  // namespace

std::uint32_t packFourCharacterCode(std::string_view text) {
  if (text.size() < 4) return 0;
  std::uint32_t code = 0;
  for (const char c : text.substr(0, 4)) code = code << 8 | static_cast<unsigned char>(c);
  return code;
}

std::string unpackFourCharacterCode(std::uint32_t code) {
  std::string text;
  for (const int shift : {24, 16, 8, 0}) text += static_cast<char>(code >> shift & 0xFF);
  return text;
}

std::optional<double> decodeSMCValue(std::string_view type, const std::array<std::uint8_t, 4>& bytes) {
  const std::string_view name = trimmed(type);
  const std::uint32_t littleEndian =
      bytes[0] | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 | std::uint32_t{bytes[3]} << 24;
  if (name == "flt") return static_cast<double>(std::bit_cast<float>(littleEndian));
  if (name == "ui8") return static_cast<double>(bytes[0]);
  if (name == "ui16") return static_cast<double>(littleEndian & 0xFFFF);
  if (name == "ui32") return static_cast<double>(littleEndian);
  return decodeFixedPoint(name, bytes[0], bytes[1]);
}

}  // namespace quenzel
