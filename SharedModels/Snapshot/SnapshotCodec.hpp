#pragma once

#include <string>
#include <string_view>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"
#include "SharedModels/Snapshot/SamplingConfig.hpp"

namespace quenzel {

/// The JSON bytes in which snapshots and sampling configurations are exchanged; see
/// SharedModels/Runtime/JSONCoding.hpp for their form. Each call stands on its own; a failure is a
/// JSONCodingError.
namespace SnapshotCodec {
std::string encodeSnapshot(const DrainSnapshot& snapshot);
DrainSnapshot decodeSnapshot(std::string_view data);
std::string encodeConfig(const SamplingConfig& config);
SamplingConfig decodeConfig(std::string_view data);
}  // namespace SnapshotCodec

}  // namespace quenzel
