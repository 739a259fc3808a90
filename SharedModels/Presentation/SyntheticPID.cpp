#include "SharedModels/Presentation/SyntheticPID.hpp"

namespace quenzel::ProcessAttributionPresentationService {

std::int32_t stableSyntheticPID(std::string_view key) {
  constexpr std::uint64_t start = 0x14650FB0739D0383U;
  constexpr std::uint64_t prime = 0x100000001B3U;
  std::uint64_t hash = start;
  for (const char byte : key) hash = (hash ^ static_cast<unsigned char>(byte)) * prime;
  constexpr std::uint64_t range = 2'000'000'000;
  return -static_cast<std::int32_t>(hash % range) - 1'000'000;
}

}  // namespace quenzel::ProcessAttributionPresentationService
