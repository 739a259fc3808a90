#include <IOKit/IOKitLib.h>
#include <mach/mach.h>

#include "Platform/Darwin/ScopedIOObject.hpp"
#include "Platform/SMCUserClient.hpp"

namespace quenzel::platform {
namespace {

constexpr std::uint32_t userClientType = 0;
constexpr std::uint32_t exchangeMethod = 2;

class DarwinSMCUserClient final : public SMCUserClient {
 public:
  DarwinSMCUserClient() = default;
  DarwinSMCUserClient(const DarwinSMCUserClient&) = delete;
  DarwinSMCUserClient& operator=(const DarwinSMCUserClient&) = delete;
  ~DarwinSMCUserClient() override { close(); }

  bool open() override {
    close();
    const ScopedIOObject service = findIOService("AppleSMC");
    return service &&
           IOServiceOpen(service.get(), mach_task_self(), userClientType, &connection_) == kIOReturnSuccess;
  }

  void close() override {
    if (connection_ != IO_OBJECT_NULL) IOServiceClose(connection_);
    connection_ = IO_OBJECT_NULL;
  }

  bool exchange(const SMCExchangeBytes& request, SMCExchangeBytes& reply) override {
    std::size_t size = reply.size();
    return IOConnectCallStructMethod(connection_, exchangeMethod, request.data(), request.size(),
                                     reply.data(), &size) == kIOReturnSuccess &&
           size == reply.size();
  }

 private:
  io_connect_t connection_ = IO_OBJECT_NULL;
};

}  // namespace

std::unique_ptr<SMCUserClient> makeSMCUserClient() { return std::make_unique<DarwinSMCUserClient>(); }

}  // namespace quenzel::platform
