#pragma once

#include <cstdint>
#include <string_view>

namespace quenzel::ProcessAttributionPresentationService {

/// A number for a row that stands for no single process: the same for the same key at all times, and from
/// -2,000,999,999 to -1,000,000, so that it is never that of a real process. A reduced FNV-1a hash of the
/// key's bytes, with a start value of this system's own.
std::int32_t stableSyntheticPID(std::string_view key);

}  // namespace quenzel::ProcessAttributionPresentationService
