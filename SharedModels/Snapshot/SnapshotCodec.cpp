#include "SharedModels/Snapshot/SnapshotCodec.hpp"

#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel::SnapshotCodec {

std::string encodeSnapshot(const DrainSnapshot& snapshot) {
  return encodeJSON(encodeDrainSnapshot(snapshot));
}

DrainSnapshot decodeSnapshot(std::string_view data) { return decodeDrainSnapshot(parseJSON(data), {}); }

std::string encodeConfig(const SamplingConfig& config) { return encodeJSON(encodeSamplingConfig(config)); }

SamplingConfig decodeConfig(std::string_view data) { return decodeSamplingConfig(parseJSON(data), {}); }

}  // namespace quenzel::SnapshotCodec
