#pragma once

#include <array>
#include <cstddef>
#include <memory>

namespace quenzel::platform {

/// Size of the record that the System Management Controller's user client takes and returns.
inline constexpr std::size_t smcExchangeRecordSize = 80;
using SMCExchangeBytes = std::array<std::byte, smcExchangeRecordSize>;

/// One user-client connection to the System Management Controller. Not thread-safe: its owner serialises the
/// calls.
class SMCUserClient {
 public:
  virtual ~SMCUserClient() = default;

  /// Opens the connection; false when there is no controller or it refuses.
  virtual bool open() = 0;

  /// Closes an open connection; harmless otherwise.
  virtual void close() = 0;

  /// Sends one record (method 2) and fills the reply; false when the call itself fails.
  virtual bool exchange(const SMCExchangeBytes& request, SMCExchangeBytes& reply) = 0;
};

/// Linux has no such controller: opening always fails there.
std::unique_ptr<SMCUserClient> makeSMCUserClient();

}  // namespace quenzel::platform
