#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "SharedModels/Snapshot/ProcessSample.hpp"
#include "SharedModels/Snapshot/SnapshotCodec.hpp"

using namespace quenzel;

namespace {

template <typename Decode, typename Encode>
void requireRoundTrip(std::string_view bytes, Decode decode, Encode encode) {
  using Record = decltype(decode(bytes));
  std::optional<Record> record;
  try {
    record = decode(bytes);
  } catch (const JSONCodingError&) {
    return;
  }
  if (decode(encode(*record)) != *record) std::abort();
}

}  // namespace

/// What reads is written, and reads back equal.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  requireRoundTrip(bytes, SnapshotCodec::decodeSnapshot, SnapshotCodec::encodeSnapshot);
  requireRoundTrip(bytes, SnapshotCodec::decodeConfig, SnapshotCodec::encodeConfig);
  requireRoundTrip(
      bytes, [](std::string_view text) { return decodeProcessSample(parseJSON(text), {}); },
      [](const ProcessSample& sample) { return encodeJSON(encodeProcessSample(sample)); });
  return 0;
}
