#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "Base/Mutex.hpp"
#include "MetricsCollectors/SMCPowerReading.hpp"
#include "MetricsCollectors/SMCValue.hpp"
#include "Platform/SMCUserClient.hpp"

namespace quenzel {

/// Reads power values from the System Management Controller. Every read yields none while there is no
/// connection, for a key that the machine does not have, and for a data type that is not a number.
///
/// Thread-safe: one lock serialises connection, cache and exchanges, so one reader serves all its consumers.
/// A read costs one kernel call, the first of a key two.
class SMCReader final : public SMCTotalPowerReading,
                        public SMCDisplayPowerReading,
                        public SMCUSBPowerReading {
 public:
  /// Connects at once; a machine without a controller leaves the reader disconnected.
  explicit SMCReader(std::unique_ptr<platform::SMCUserClient> client = platform::makeSMCUserClient());
  ~SMCReader() override;
  SMCReader(const SMCReader&) = delete;
  SMCReader& operator=(const SMCReader&) = delete;

  /// Connects unless it is connected already.
  void connect();

  std::optional<float> readFloatKey(std::string_view key);

  std::optional<double> readDisplayPowerWatts() override { return readFloatKey("PDBR"); }
  std::optional<double> readSystemTotalPowerWatts() override { return readFloatKey("PSTR"); }
  std::optional<double> readThunderboltLeftPowerWatts() override { return readFloatKey("PU1R"); }
  std::optional<double> readThunderboltRightPowerWatts() override { return readFloatKey("PU2R"); }

 private:
  std::optional<SMCKeyInfoData> keyInfo(std::uint32_t key) REQUIRES(lock_);
  std::optional<SMCExchangeRecord> exchange(const SMCExchangeRecord& request) REQUIRES(lock_);

  Mutex lock_;
  const std::unique_ptr<platform::SMCUserClient> client_ GUARDED_BY(lock_);
  bool isConnected_ GUARDED_BY(lock_) = false;
  std::map<std::uint32_t, SMCKeyInfoData> keyInfoCache_ GUARDED_BY(lock_);
};

}  // namespace quenzel
