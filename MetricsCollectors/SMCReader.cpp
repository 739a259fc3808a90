#include "MetricsCollectors/SMCReader.hpp"

#include <bit>
#include <utility>

namespace quenzel {

SMCReader::SMCReader(std::unique_ptr<platform::SMCUserClient> client) : client_(std::move(client)) {
  connect();
}

SMCReader::~SMCReader() {
  const MutexLock guard(lock_);
  if (isConnected_) client_->close();
}

void SMCReader::connect() {
  const MutexLock guard(lock_);
  if (!isConnected_) isConnected_ = client_->open();
}

std::optional<float> SMCReader::readFloatKey(std::string_view key) {
  const MutexLock guard(lock_);
  if (!isConnected_) return std::nullopt;
  SMCExchangeRecord request;
  request.key = packFourCharacterCode(key);
  const auto info = keyInfo(request.key);
  if (!info) return std::nullopt;
  request.keyInfo = *info;
  request.command = SMCExchangeRecord::readKeyBytes;
  const auto reply = exchange(request);
  if (!reply) return std::nullopt;
  const auto value = decodeSMCValue(unpackFourCharacterCode(info->dataType),
                                    {reply->bytes[0], reply->bytes[1], reply->bytes[2], reply->bytes[3]});
  if (!value) return std::nullopt;
  return static_cast<float>(*value);
}

std::optional<SMCKeyInfoData> SMCReader::keyInfo(std::uint32_t key) {
  const auto known = keyInfoCache_.find(key);
  if (known != keyInfoCache_.end()) return known->second;
  SMCExchangeRecord request;
  request.key = key;
  request.command = SMCExchangeRecord::readKeyInfo;
  const auto reply = exchange(request);
  if (!reply || reply->keyInfo.dataSize == 0) return std::nullopt;
  return keyInfoCache_.emplace(key, reply->keyInfo).first->second;
}

/// A call may succeed while the controller itself refuses: both results count.
std::optional<SMCExchangeRecord> SMCReader::exchange(const SMCExchangeRecord& request) {
  platform::SMCExchangeBytes reply{};
  if (!client_->exchange(std::bit_cast<platform::SMCExchangeBytes>(request), reply)) return std::nullopt;
  const auto record = std::bit_cast<SMCExchangeRecord>(reply);
  if (record.result != 0) return std::nullopt;
  return record;
}

}  // namespace quenzel
